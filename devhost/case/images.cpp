/* Images at hand: from a folder to the engine. */
#include "case.h"

#include "../base/text.h"
#include "../base/text_json.h"
#include "../machine/modules.h"

static void add_image(const collected_file &found, replay_images *images)
{
    const std::string name = file_name_of(found.shown);
    kernel_image image;

    try {
        auto file = std::make_unique<evidence_file>(found.path);
        const char *fault = kernel_image_open(name, file->data(), file->bytes(), &image);

        if (fault != nullptr)
            throw devhost_error(EXIT_BAD_EVIDENCE, fault);
        images->images.push_back(std::move(image));
        images->files.push_back(std::move(file));
    } catch (const devhost_error &error) {
        images->others.push_back({name, error.what()}); /* which may have the name of no module */
    }
}

std::shared_ptr<const replay_images> images_read(const std::string &folder)
{
    auto read = std::make_shared<replay_images>();
    std::unique_ptr<run_folder> extracted;
    std::vector<replay_ignored> ignored;

    if (!folder_exists(folder))
        evidence_bad(folder, "not a folder, expected one with drivers and kernel files");
    for (const collected_file &file : collect_files(folder, &extracted, &ignored))
        add_image(file, read.get());
    return read;
}

static void add_use(const std::string &file, const std::string &why,
                    std::vector<replay_image_use> *uses)
{
    for (const replay_image_use &use : *uses)
        if (use.file == file && use.why == why)
            return;
    uses->push_back({file, why});
}

void images_add_uses(const replay_images &images, const kernel_dump &dump,
                     std::vector<replay_image_use> *uses)
{
    for (const kernel_dump_module &module : dump.modules) {
        for (const kernel_image &image : images.images)
            if (kernel_dump_image_is_named(image.file, module))
                add_use(image.file, kernel_dump_image_mismatch(image, module), uses);
        for (const replay_ignored &other : images.others)
            if (kernel_dump_image_is_named(other.file, module))
                add_use(other.file, other.why, uses);
    }
}

std::string images_text(const std::vector<replay_image_use> &uses)
{
    std::string text;

    for (const replay_image_use &use : uses)
        text += "  " + use.file + ": image, " +
                (use.why.empty() ? "unwinds its frames" : "not used, " + use.why) + "\n";
    return text;
}

void images_put(json_lines &writer, const std::vector<replay_image_use> &uses)
{
    json_objects(writer, "images", uses, [&](const replay_image_use &use) {
        json_members(writer, "file", use.file, "used", use.why.empty());
        json_member_or_null(writer, "why", use.why);
    });
}

void images_place(const replay_images *images)
{
    machine_get_engine().images.clear();
    if (images == nullptr)
        return;
    for (const kernel_image &image : images->images)
        machine_get_engine().images.push_back({image.file, image.bytes, image.size});
}
