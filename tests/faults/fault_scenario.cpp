/* Scenarios of a sweep, made of another one. */
#include "fault_scenario.h"

#include <algorithm>

#include "scenario/products.h"

/* The machine as it is without faults, whatever the scenario has made of it. */
static const char s_afterwards[] = R"({
    "about": "nothing is disturbed any more", "until": 450,
    "machine": {
        "privileges": ["SeSecurityPrivilege"], "tick_count_64": true, "base_folder": true,
        "lenient": false, "services": {"load_driver": ["running"], "oxnisp_driver": ["running"]},
        "engine": {"present": true, "fails": {}},
        "processes": [{"pid": 0, "parent": 0, "name": "[System Process]"},
                      {"pid": 4, "parent": 0, "name": "System"}]
    },
    "steps": []
})";

/* Crash records of the platform's drivers as those write them. */
static const char s_whole_records[] = R"([
    {"path": "{bin}\\crash_config.cfg", "record_count": 1},
    {"path": "{base}\\Quorvel\\OXNI3_CFG\\oxnisp_driver\\crash_config.cfg", "record_count": 1}
])";

static json_value &member(json_value &object, const char *name)
{
    return object.FindMember(name)->value;
}

/* A boot without what it expects, and without allocations that it makes fail itself: they would
 * undo ours. */
static void strip(json_value &boot)
{
    boot.RemoveMember("expect");
    if (node_member(&boot, "steps") == NULL)
        return;
    json_value &steps = member(boot, "steps");
    for (auto step = steps.Begin(); step != steps.End();)
        step = step->HasMember("expect") || step->HasMember("fail_allocation") ? steps.Erase(step)
                                                                               : step + 1;
}

void fault_scenario_strip(struct scenario &scenario)
{
    for (json_value &boot : member(scenario.document, "boots").GetArray())
        strip(boot);
}

/* Ends as another one does; NULL: cleanly. */
static void set_end(json_value &boot, const json_value *other,
                    rapidjson::Document::AllocatorType &memory)
{
    for (const char *name : {"ends", "crash"}) {
        const json_value *said = node_member(other, name);

        boot.RemoveMember(name);
        if (said != NULL)
            boot.AddMember(json_value(name, memory), json_value(*said, memory), memory);
    }
}

/* The products' states at the beginning of a boot, set there by steps. */
static void add_states(json_value &boot, const std::vector<std::string> &states,
                       rapidjson::Document::AllocatorType &memory)
{
    if (node_member(&boot, "steps") == NULL)
        boot.AddMember("steps", json_value(rapidjson::kArrayType), memory);
    for (size_t i = 0; i < states.size(); i++) {
        rapidjson::Document state(&memory);
        json_value step(rapidjson::kObjectType), set(rapidjson::kObjectType);

        state.Parse(states[i].c_str());
        set.AddMember("status", state["status"], memory);
        set.AddMember("count", state["count"], memory);
        step.AddMember("at", 0, memory);
        step.AddMember("product", json_value(product_keys()[i].c_str(), memory), memory);
        step.AddMember("set", set, memory);
        member(boot, "steps").PushBack(step, memory);
    }
}

/* Whether a text stands somewhere below value. */
static bool names_text(const json_value &value, const std::string &part)
{
    auto names = [&part](const json_value &below) { return names_text(below, part); };

    if (value.IsString())
        return std::string(value.GetString()).find(part) != std::string::npos;
    if (value.IsArray())
        return std::any_of(value.Begin(), value.End(), names);
    return value.IsObject() && std::any_of(value.MemberBegin(), value.MemberEnd(),
                                           [&names](const auto &m) { return names(m.value); });
}

/* A module that somebody registers; "nt" when nobody does. */
static std::string some_module(const struct scenario &scenario)
{
    const json_value *products = node_member(&scenario.document, "products");

    if (products != NULL)
        for (const auto &product : products->GetObject())
            for (const json_value *module : node_elements(&product.value, "modules"))
                if (module->IsString())
                    return module->GetString();
    return "nt";
}

/* The boots behind the disturbed ones: what they decide on is a power loss and a blue screen. */
static void add_afterwards(struct scenario &scenario, size_t boot, size_t products)
{
    auto &memory = scenario.document.GetAllocator();
    json_value &boots = member(scenario.document, "boots");
    rapidjson::Document usual(&memory), crash(&memory);
    /* Crash records that the scenario damages are whole again, if nobody else has seen to it. */
    bool damages = names_text(boots[static_cast<unsigned>(boot)], "crash_config.cfg");

    usual.Parse(s_afterwards);
    crash.Parse(("{\"frames\": [\"" + some_module(scenario) + "+0x10\"]}").c_str());
    if (damages) {
        rapidjson::Document files(&memory);

        files.Parse(s_whole_records);
        member(usual, "machine").AddMember("files", files.Move(), memory);
    }
    add_states(usual, std::vector<std::string>(products, "{\"status\": \"working\", \"count\": 3}"),
               memory);
    for (json_value &step : member(usual, "steps").GetArray())
        member(step, "set").AddMember("unreachable", 0, memory);
    json_value second(usual, memory);
    /* Late enough that no clock of a scenario makes them one boot with another. */
    usual.AddMember("at", "2031-01-01T09:00:00Z", memory);
    second.AddMember("at", "2031-01-02T09:00:00Z", memory);
    usual.AddMember("ends", "blue_screen", memory);
    usual.AddMember("crash", crash.Move(), memory);
    boots.PushBack(usual.Move(), memory);
    boots.PushBack(second, memory);
}

void fault_scenario_prepare(const struct scenario &whole, size_t boot,
                            const std::vector<std::string> &states, struct scenario &scenario)
{
    auto &memory = scenario.document.GetAllocator();

    scenario.file = whole.file;
    scenario.folder = whole.folder;
    scenario.defines = whole.defines;
    scenario.document.CopyFrom(whole.document, memory);
    json_value &boots = member(scenario.document, "boots");
    boots.Erase(boots.Begin() + static_cast<int>(boot + 1), boots.End());
    for (json_value &each : boots.GetArray())
        strip(each);
    const json_value *before =
        boot > 0
            ? &node_member(&whole.document, "boots")->GetArray()[static_cast<unsigned>(boot - 1)]
            : node_member(&whole.document, "before");
    json_value again(boots[static_cast<unsigned>(boot)], memory);
    json_value power_loss(rapidjson::kObjectType);
    power_loss.AddMember("ends", "power_loss", memory);
    set_end(boots[static_cast<unsigned>(boot)], before, memory);
    again.RemoveMember("at");
    add_states(again, states, memory);
    for (size_t life = 1; life < LIVES; life++) {
        json_value copy(again, memory);

        set_end(copy, life + 1 < LIVES ? before : &power_loss, memory);
        boots.PushBack(copy, memory);
    }
    add_afterwards(scenario, boot, states.size());
}
