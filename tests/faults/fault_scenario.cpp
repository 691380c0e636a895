/* Makes the scenario of fault runs. */
#include "fault_scenario.h"

#include <algorithm>

/* A boot that resets the machine to one without faults. */
static const char s_undisturbed[] = R"({
    "about": "undisturbed", "until": 450,
    "machine": {
        "privileges": ["SeSecurityPrivilege"], "tick_count_64": true, "base_folder": true,
        "lenient": false, "services": {"load_driver": ["running"], "oxnisp_driver": ["running"]},
        "engine": {"present": true, "fails": {}},
        "processes": [{"pid": 0, "parent": 0, "name": "[System Process]"},
                      {"pid": 4, "parent": 0, "name": "System"}]
    },
    "steps": []
})";

/* Crash records of the platform's drivers as the drivers write them. */
static const char s_intact_records[] = R"([
    {"path": "{bin}\\crash_config.cfg", "record_count": 1},
    {"path": "{base}\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg", "record_count": 1}
])";

static json_value &member(json_value &object, const char *name)
{
    return object.FindMember(name)->value;
}

/* Removes what is checked or fails by itself, and a second entry: it creates its tables anew and
 * loses the first ones. */
static void strip(json_value &boot)
{
    boot.RemoveMember("expect");
    if (node_member(&boot, "steps") == nullptr)
        return;
    json_value &steps = member(boot, "steps");
    for (auto step = steps.Begin(); step != steps.End();)
        step = step->HasMember("expect") || step->HasMember("fail_allocation") ||
                       step->HasMember("init")
                   ? steps.Erase(step)
                   : step + 1;
}

void fault_scenario_strip(struct scenario &scenario)
{
    for (json_value &boot : member(scenario.document, "boots").GetArray())
        strip(boot);
}

/* Whether a text is part of a string somewhere in value. */
static bool contains_text(const json_value &value, const std::string &part)
{
    auto contains = [&part](const json_value &inner) { return contains_text(inner, part); };

    if (value.IsString())
        return std::string(value.GetString()).find(part) != std::string::npos;
    if (value.IsArray())
        return std::any_of(value.Begin(), value.End(), contains);
    return value.IsObject() &&
           std::any_of(value.MemberBegin(), value.MemberEnd(),
                       [&contains](const auto &inner) { return contains(inner.value); });
}

/* Adds the boot before which the crash of a registered module occurs, and the one before it. At the
 * start of each, every product works with count 3 and can be reached. */
static void add_undisturbed(struct scenario &scenario, const json_value &disturbed)
{
    auto &memory = scenario.document.GetAllocator();
    json_value &boots = member(scenario.document, "boots");
    std::string module = "nt"; /* when no product registers one */
    rapidjson::Document first(&memory), crash(&memory), records(&memory);

    first.Parse(s_undisturbed);
    /* The scenario may damage them; the plug-in need not repair them. */
    if (contains_text(disturbed, "crash_config.cfg"))
        member(first, "machine").AddMember("files", records.Parse(s_intact_records).Move(), memory);
    if (const json_value *products = node_member(&scenario.document, "products"))
        for (const auto &product : products->GetObject()) {
            rapidjson::Document step(&memory);

            step.Parse(R"({"at": 0, "set": {"status": "working", "count": 3, "unreachable": 0}})");
            step.AddMember("product", json_value(product.name, memory), memory);
            member(first, "steps").PushBack(step.Move(), memory);
            for (const json_value *name : node_elements(&product.value, "modules"))
                if (module == "nt" && name->IsString())
                    module = name->GetString();
        }
    json_value second(first, memory);
    /* So late that no clock of a scenario takes them for one boot with another. */
    first.AddMember("at", "2031-01-01T09:00:00Z", memory);
    second.AddMember("at", "2031-01-02T09:00:00Z", memory);
    first.AddMember("ends", "blue_screen", memory);
    first.AddMember(
        "crash", crash.Parse(("{\"frames\": [\"" + module + "+0x10\"]}").c_str()).Move(), memory);
    boots.PushBack(first.Move(), memory);
    boots.PushBack(second, memory);
}

void fault_scenario_prepare(const struct scenario &whole, size_t boot, struct scenario &scenario)
{
    auto &memory = scenario.document.GetAllocator();

    scenario.file = whole.file;
    scenario.folder = whole.folder;
    scenario.defines = whole.defines;
    scenario.document.CopyFrom(whole.document, memory);
    json_value &boots = member(scenario.document, "boots");
    boots.Erase(boots.Begin() + static_cast<int>(boot + 1), boots.End());
    fault_scenario_strip(scenario);
    json_value &disturbed = boots[static_cast<unsigned>(boot)];
    disturbed.RemoveMember("ends");
    disturbed.RemoveMember("crash");
    disturbed.AddMember("ends", "power_loss", memory);
    json_value copy(disturbed, memory); /* adding boots moves them */
    add_undisturbed(scenario, copy);
}
