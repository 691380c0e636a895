/* How the frames of a stack were found, and whether images at hand make the answer certain. */
#include "replay.h"

#include <algorithm>

const char *images_found_name(enum kernel_dump_found found)
{
    static const char *const names[] = {"rip", "unwound", "scanned"};

    return names[found];
}

/* What would let the first frame that a scan found be unwound, up to the last one. Empty: all are. */
static std::string wanted_for(const replay_images &images, const kernel_dump &dump,
                              const std::vector<kernel_dump_frame> &frames, size_t last)
{
    const auto end = frames.begin() + static_cast<ptrdiff_t>(std::min(last + 1, frames.size()));
    const auto scanned = std::find_if(frames.begin(), end, [](const kernel_dump_frame &frame) {
        return frame.found == KERNEL_DUMP_FOUND_SCANNED;
    });

    if (scanned == end)
        return "";
    const kernel_dump_module *callee = kernel_dump_module_at(dump, (scanned - 1)->instruction);

    /* With its image the stack is damaged. */
    if (callee == nullptr || callee->file.empty() ||
        kernel_dump_image_of(images.images, *callee) != nullptr)
        return "hand in another dump of the same crash";
    return "hand in " + callee->file + " of that machine with --images";
}

static std::string module_of(const kernel_dump &dump, const kernel_dump_frame &frame)
{
    const kernel_dump_module *module = kernel_dump_module_at(dump, frame.instruction);

    return module != nullptr ? module->name : "";
}

static size_t index_of(const kernel_dump &dump, const std::vector<kernel_dump_frame> &frames,
                       const std::string &module)
{
    size_t i = 0;

    while (i < frames.size() && module_of(dump, frames[i]) != module)
        i++;
    return i;
}

/* A registered module that only a scan of the whole stack finds: unwinding from a frame that a scan found
 * may have skipped it. */
static std::string skipped_module(const replay_evidence &evidence, const kernel_dump &dump,
                                  const std::vector<kernel_dump_frame> &frames)
{
    const std::vector<kernel_dump_frame> all = kernel_dump_walk(dump, SIZE_MAX);

    for (const replay_product &product : evidence.products)
        for (const std::string &name : product.modules)
            if (index_of(dump, frames, name) == frames.size() &&
                index_of(dump, all, name) < all.size())
                return name;
    return "";
}

/* The engine printed the frames in their order, among other lines. */
static void mark_frames(const kernel_dump &dump, const std::vector<kernel_dump_frame> &frames,
                        replay_story *story)
{
    auto next = frames.begin();

    for (replay_frame &line : story->stack)
        if (next != frames.end() && line.text == kernel_dump_call_site(dump, next->instruction))
            line.found = images_found_name((next++)->found);
}

void images_judge(const replay_evidence &evidence, replay_story *story)
{
    const replay_dump *placed = evidence.dump_at(story->dump);

    if (evidence.images == nullptr || story->stack.empty() || placed == nullptr)
        return;
    const kernel_dump dump = evidence_dump_facts(placed->dump.path);
    const std::vector<kernel_dump_frame> frames =
        kernel_dump_walk(dump, story->stack.size(), evidence.images->images);

    mark_frames(dump, frames, story);
    story->scanned.module =
        story->blamed.empty() ? skipped_module(evidence, dump, frames) : story->blamed;
    if (!story->scanned.module.empty())
        story->scanned.wanted = wanted_for(*evidence.images, dump, frames,
                                           index_of(dump, frames, story->scanned.module));
}
