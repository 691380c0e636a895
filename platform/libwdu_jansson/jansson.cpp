/* Sets Jansson up when the library is loaded, and replaces one of its functions. The .def file in
 * this directory exports the others. */
#include <jansson.h>

#include <cstring>

#include <liboxnibase/host.h>
#include <oxni/base/memory.h>

/* Not 0, which would select a random seed: runs must be reproducible. */
static constexpr size_t HASH_SEED = 1;

/* liboxnibase, which this library imports, is initialised first. */
__attribute__((constructor)) static void set_up()
{
    json_set_alloc_funcs(oxni_zero_malloc_, oxni_free_);
    json_object_seed(HASH_SEED);
    oxnih_memory_see_through(reinterpret_cast<const void *>(&set_up));
}

/* A text that grows. */
struct text_sink {
    char *text; /* terminated; NULL before the first piece */
    size_t used, size;
    bool failed;
};

static int add_piece(const char *piece, size_t length, void *user)
{
    text_sink *sink = static_cast<text_sink *>(user);
    size_t size = sink->size != 0 ? sink->size : 256;

    while (size - sink->used <= length)
        size *= 2;
    if (size != sink->size && !sink->failed) {
        char *grown = static_cast<char *>(oxni_ralloc_(sink->text, size));

        sink->failed = grown == nullptr;
        sink->text = grown != nullptr ? grown : sink->text;
        sink->size = grown != nullptr ? size : sink->size;
    }
    if (sink->failed)
        return -1;
    memcpy(sink->text + sink->used, piece, length);
    sink->used += length;
    sink->text[sink->used] = '\0';
    return 0;
}

/* Jansson's json_dumps ignores a failed allocation for a member's name: it returns a text without
 * that name, which cannot be parsed. */
extern "C" char *wdu_json_dumps(const json_t *json, size_t flags);

char *wdu_json_dumps(const json_t *json, size_t flags)
{
    text_sink sink = {nullptr, 0, 0, false};

    if (json_dump_callback(json, add_piece, &sink, flags) == 0 && !sink.failed)
        return sink.text;
    oxni_free_(sink.text);
    return nullptr;
}
