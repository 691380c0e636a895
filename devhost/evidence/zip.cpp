/* Archives: the directory at the end of the file, and members that zlib inflates. Every offset and
 * length of the file is checked before it is used. */
#include "zip.h"

#include <cstring>
#include <windows.h>

#include <algorithm>
#include <memory>

#include <zlib.h>

#include "../base/text.h"
#include "../unwind/file_span.h"

static constexpr uint32_t END_MARK = 0x06054b50u;
static constexpr uint32_t END_BYTES = 22u;
static constexpr uint32_t END64_MARK = 0x06064b50u;
static constexpr uint32_t LOCATOR64_MARK = 0x07064b50u;
static constexpr uint32_t LOCATOR64_BYTES = 20u;
static constexpr uint32_t ENTRY_MARK = 0x02014b50u;
static constexpr uint32_t ENTRY_BYTES = 46u;
static constexpr uint32_t LOCAL_MARK = 0x04034b50u;
static constexpr uint32_t LOCAL_BYTES = 30u;
static constexpr uint32_t COMMENT_MOST = 0xffffu;
static constexpr uint32_t EXTRA_64 = 0x0001u;
static constexpr uint32_t FLAG_ENCRYPTED = 0x0001u;
static constexpr uint32_t METHOD_STORED = 0u;
static constexpr uint32_t METHOD_DEFLATED = 8u;
static constexpr uint32_t PIECE_BYTES = 0x100000u;
/* More than any dump: it bounds what a small archive can fill. */
static constexpr uint64_t MEMBER_MOST = 1ull << 40;
/* A dump that is mostly zeros shrinks that much, but then it is small enough. */
static constexpr uint64_t BOMB_RATIO = 200;
static constexpr uint64_t BOMB_BYTES = 4ull << 30;
static constexpr size_t NAME_MOST = 255; /* characters of a file name on NTFS */

namespace
{
struct entry {
    std::string name;
    uint16_t flags, method;
    uint32_t crc;
    uint64_t packed, bytes, offset; /* offset: of the local header */
};

/* The output of one member. */
class member_writer
{
  public:
    explicit member_writer(const std::string &path)
        : path_(path), file_(CreateFileW(text_wide(path).c_str(), GENERIC_WRITE, 0, nullptr,
                                         CREATE_NEW, 0, nullptr))
    {
        if (file_ == INVALID_HANDLE_VALUE)
            fail();
    }
    ~member_writer()
    {
        CloseHandle(file_);
    }
    member_writer(const member_writer &) = delete;
    member_writer &operator=(const member_writer &) = delete;

    void put(const uint8_t *bytes, size_t size)
    {
        DWORD written = 0;

        crc = static_cast<uint32_t>(crc32(crc, bytes, static_cast<uInt>(size)));
        total += size;
        if (!WriteFile(file_, bytes, static_cast<DWORD>(size), &written, nullptr))
            fail();
    }

    uint32_t crc = 0;
    uint64_t total = 0;

  private:
    [[noreturn]] void fail() const
    {
        const DWORD error = GetLastError();

        throw devhost_error(EXIT_BAD_CALL, "cannot write '" + path_ + "': " + text_error(error));
    }

    std::string path_;
    HANDLE file_;
};
} // namespace

/* Where the directory starts and how many members it lists. */
static bool find_directory(const file_span &file, uint64_t *offset, uint64_t *count)
{
    uint64_t end = file.size >= END_BYTES ? file.size - END_BYTES : 0;
    const uint64_t first = end > COMMENT_MOST ? end - COMMENT_MOST : 0;

    while (end > first && file.get<uint32_t>(end) != END_MARK)
        end--;
    if (file.get<uint32_t>(end) != END_MARK)
        return false;
    *count = file.get<uint16_t>(end + 10);
    *offset = file.get<uint32_t>(end + 16);
    if (end < LOCATOR64_BYTES || file.get<uint32_t>(end - LOCATOR64_BYTES) != LOCATOR64_MARK)
        return true;
    const uint64_t end64 = file.get<uint64_t>(end - LOCATOR64_BYTES + 8);

    if (file.get<uint32_t>(end64) != END64_MARK)
        return false;
    *count = file.get<uint64_t>(end64 + 32);
    *offset = file.get<uint64_t>(end64 + 48);
    return true;
}

/* Sizes and offset of a large member are in an extra field, in this order, each only where the usual
 * field is full. */
static void read_extra_64(const file_span &file, uint64_t offset, uint64_t bytes, entry *entry)
{
    while (bytes >= 4) {
        const uint16_t id = file.get<uint16_t>(offset);
        const uint64_t length = std::min<uint64_t>(file.get<uint16_t>(offset + 2), bytes - 4);
        uint64_t value = offset + 4;

        if (id == EXTRA_64)
            for (uint64_t *field : {&entry->bytes, &entry->packed, &entry->offset})
                if (*field == UINT32_MAX && value + 8 <= offset + 4 + length) {
                    *field = file.get<uint64_t>(value);
                    value += 8;
                }
        offset += 4 + length;
        bytes -= 4 + length;
    }
}

static file_span span_of(const evidence_file &file)
{
    return {file.data(), file.bytes()};
}

static std::vector<entry> read_directory(const evidence_file &archive)
{
    const file_span file = span_of(archive);
    std::vector<entry> entries;
    uint64_t offset = 0, count = 0;

    if (!find_directory(file, &offset, &count))
        archive.bad("the archive is truncated: its directory is missing");
    for (; count > 0; count--) {
        if (!file.holds(offset, ENTRY_BYTES) || file.get<uint32_t>(offset) != ENTRY_MARK)
            archive.bad(text_format("the archive's directory is damaged at byte %llu", offset));
        const uint64_t name = file.get<uint16_t>(offset + 28),
                       extra = file.get<uint16_t>(offset + 30),
                       comment = file.get<uint16_t>(offset + 32);
        entry one = {"",
                     file.get<uint16_t>(offset + 8),
                     file.get<uint16_t>(offset + 10),
                     file.get<uint32_t>(offset + 16),
                     file.get<uint32_t>(offset + 20),
                     file.get<uint32_t>(offset + 24),
                     file.get<uint32_t>(offset + 42)};

        offset += ENTRY_BYTES;
        if (!file.holds(offset, name + extra + comment))
            archive.bad("the archive's directory is truncated");
        one.name.assign(reinterpret_cast<const char *>(file.bytes) + offset, name);
        one.name = text_narrow(text_wide(one.name));
        read_extra_64(file, offset + name, extra, &one);
        offset += name + extra + comment;
        entries.push_back(one);
    }
    return entries;
}

static void store(const uint8_t *data, uint64_t bytes, member_writer *out)
{
    for (uint64_t done = 0; done < bytes; done += PIECE_BYTES)
        out->put(data + done, static_cast<size_t>(std::min<uint64_t>(PIECE_BYTES, bytes - done)));
}

/* Result: whether the data is sound and not longer than in the directory. */
static bool inflate_member(const uint8_t *data, const entry &entry, member_writer *out)
{
    struct inflater {
        z_stream stream = {};
        ~inflater()
        {
            (void)inflateEnd(&stream);
        }
    } state;
    const std::unique_ptr<uint8_t[]> piece(new uint8_t[PIECE_BYTES]);
    uint64_t left = entry.packed;
    int result = inflateInit2(&state.stream, -MAX_WBITS);

    state.stream.next_in = const_cast<uint8_t *>(data); /* zlib reads it only */
    while (result == Z_OK && out->total <= entry.bytes) {
        if (state.stream.avail_in == 0) {
            state.stream.avail_in = static_cast<uInt>(std::min<uint64_t>(PIECE_BYTES, left));
            left -= state.stream.avail_in;
        }
        state.stream.next_out = piece.get();
        state.stream.avail_out = PIECE_BYTES;
        result = inflate(&state.stream, Z_NO_FLUSH);
        out->put(piece.get(), PIECE_BYTES - state.stream.avail_out);
    }
    return result == Z_STREAM_END;
}

/* Result: why the member cannot be extracted; empty: it is. */
static std::string extract(const file_span &file, const entry &entry, const std::string &path)
{
    const uint64_t data = entry.offset + LOCAL_BYTES + file.get<uint16_t>(entry.offset + 26) +
                          file.get<uint16_t>(entry.offset + 28);

    if ((entry.flags & FLAG_ENCRYPTED) != 0)
        return "is encrypted, unpack the archive and hand in the folder";
    if (entry.method != METHOD_STORED && entry.method != METHOD_DEFLATED)
        return text_format("is packed by method %u, unpack the archive and hand in the folder",
                           entry.method);
    if (!file.holds(entry.offset, LOCAL_BYTES) || file.get<uint32_t>(entry.offset) != LOCAL_MARK ||
        !file.holds(data, entry.packed) || entry.bytes > MEMBER_MOST)
        return "is damaged in the archive";
    member_writer out(path);

    if (entry.method == METHOD_STORED)
        store(file.bytes + data, entry.packed, &out);
    else if (!inflate_member(file.bytes + data, entry, &out))
        return "is damaged in the archive";
    return out.total == entry.bytes && out.crc == entry.crc
               ? ""
               : "is damaged in the archive: wrong checksum";
}

/* Whether a path leads out of the folder in which an archive is unpacked. Ours are unpacked under
 * names of their own; an archive with such a name was made to do harm. */
static bool leads_out(const std::string &name)
{
    const std::string path = "/" + text_replace(name, "\\", "/") + "/";

    return path[1] == '/' || (name.size() > 1 && name[1] == ':') ||
           path.find("/../") != std::string::npos;
}

static bool is_file_name(const std::string &name)
{
    return text_wide(name).size() <= NAME_MOST &&
           std::none_of(name.begin(), name.end(), [](char c) {
               return static_cast<unsigned char>(c) < ' ' || strchr("<>:\"|?*", c) != nullptr;
           });
}

static uint64_t free_bytes(const std::string &folder)
{
    ULARGE_INTEGER available = {};

    return GetDiskFreeSpaceExW(text_wide(folder).c_str(), &available, nullptr, nullptr)
               ? available.QuadPart
               : UINT64_MAX;
}

/* Nothing is unpacked from an archive that would fill the disk. */
static void refuse_harm(const evidence_file &file, const std::vector<entry> &entries,
                        const std::string &folder)
{
    uint64_t packed = 0, bytes = 0;

    for (const entry &entry : entries) {
        if (leads_out(entry.name))
            file.bad("refused: the member '" + entry.name +
                     "' leads out of the folder in which the archive is unpacked");
        packed += std::min(entry.packed, file.bytes() + 1);
        bytes += std::min(entry.bytes, MEMBER_MOST);
    }
    if (packed > file.bytes())
        file.bad("refused: its members overlap, which is typical of a decompression bomb");
    if (bytes > BOMB_BYTES && bytes / BOMB_RATIO > file.bytes())
        file.bad(text_format("refused: %llu MiB would become %llu MiB; if that is genuine, "
                             "unpack it and hand in the folder",
                             file.bytes() >> 20, bytes >> 20));
    if (bytes > free_bytes(folder))
        file.bad(text_format("refused: it needs %llu MiB, and '%s' has %llu MiB free", bytes >> 20,
                             folder.c_str(), free_bytes(folder) >> 20));
}

bool zip_is_archive(const std::string &path)
{
    const evidence_file file(path);
    const uint32_t mark = span_of(file).get<uint32_t>(0);

    return mark == LOCAL_MARK || mark == END_MARK;
}

std::vector<zip_member> zip_extract(const evidence_file &file, const std::string &folder,
                                    bool (*wanted)(const std::string &name))
{
    const std::vector<entry> entries = read_directory(file);
    std::vector<zip_member> members;

    refuse_harm(file, entries, folder);
    for (const entry &entry : entries) {
        const std::string name = file_name_of(entry.name);

        if (name.empty()) /* a folder */
            continue;
        members.push_back({entry.name, "", ""});
        zip_member &member = members.back();

        if (!wanted(name))
            member.why = "neither a log, a dump, a registry export nor a list of products";
        else if (!is_file_name(name))
            member.why = "has a name that Windows does not permit";
        if (!member.why.empty())
            continue;
        const std::string own = folder + text_format("\\%u", static_cast<unsigned>(members.size()));

        CreateDirectoryW(text_wide(own).c_str(), nullptr);
        member.why = extract(span_of(file), entry, own + "\\" + name);
        if (member.why.empty())
            member.path = own + "\\" + name;
    }
    return members;
}
