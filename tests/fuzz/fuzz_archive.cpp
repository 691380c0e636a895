/* Archives that people hand in: their members are extracted, or refused with a reason. */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include "base/file.h"
#include "base/text.h"
#include "evidence/zip.h"

static constexpr char NAME[] = "input";
static constexpr uint64_t TEXT_BYTES = 3016; /* of the members, see archives.py */

static std::vector<std::string> s_good;

static bool wants_all(const std::string &)
{
    return true;
}

/* Result: the members, or none with the reason. */
static std::vector<zip_member> extracted(const std::string &archive, std::string *refused)
{
    const uint8_t *block = fuzz_guarded(archive.data(), archive.size());

    try {
        return zip_extract(evidence_file(NAME, block, archive.size()), fuzz_disk.path, wants_all);
    } catch (const devhost_error &error) {
        *refused = error.what();
        return {};
    }
}

static uint64_t size_of(const std::string &path)
{
    WIN32_FILE_ATTRIBUTE_DATA facts = {};

    if (!GetFileAttributesExW(text_wide(path).c_str(), GetFileExInfoStandard, &facts))
        violated("a member was extracted to " + path + ", which is not there");
    return static_cast<uint64_t>(facts.nFileSizeHigh) << 32 | facts.nFileSizeLow;
}

static void open_zip(void)
{
    std::string refused;

    s_good = {file_bytes("fuzz_plain.zip"), file_bytes("fuzz_large.zip")};
    for (const std::string &good : s_good) {
        const std::vector<zip_member> members = extracted(good, &refused);

        if (members.size() != 2 || members[0].name != "a/System.evtx" ||
            size_of(members[0].path) != TEXT_BYTES || size_of(members[1].path) != TEXT_BYTES)
            violated("a good archive is not extracted: " + refused);
        fuzz_disk.empty();
    }
}

/* Most damage hits the directory, or the header of the last member: they decide what is read. */
static std::string damaged_archive(chance &chance)
{
    std::string archive = chance.of(s_good);
    const bool of_member = chance.one_in(3);
    const size_t begin = of_member ? archive.rfind("PK\3\4") : archive.find("PK\1\2");

    if (chance.one_in(4))
        return damaged(s_good, chance);
    change_numbers(&archive, begin, of_member ? 34 : archive.size(), archive.size(), chance);
    return archive;
}

static void try_zip(chance &chance, uint64_t)
{
    std::string refused;
    const std::vector<zip_member> members = extracted(damaged_archive(chance), &refused);

    if (members.empty() && !refused.empty() && refused.compare(0, strlen(NAME) + 2, "input: ") != 0)
        violated("an error that does not name the archive: " + refused);
    for (const zip_member &one : members) {
        if (one.path.empty() == one.why.empty())
            violated("a member that is neither extracted nor refused: " + one.name);
        if (!one.path.empty() && (one.path.compare(0, fuzz_disk.path.size(), fuzz_disk.path) != 0 ||
                                  one.path.find("..", fuzz_disk.path.size()) != std::string::npos))
            violated("a member was extracted to " + one.path);
        if (!one.path.empty())
            (void)size_of(one.path);
    }
    if (!members.empty())
        fuzz_disk.empty();
}
FUZZ_TARGET(zip, open_zip, try_zip, 1, 500)
