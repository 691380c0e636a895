/*
 * Random machines, written as scenarios: what is played is what `run` would play of the same file.
 */
#include "machines.h"

#include <algorithm>

#include "participants/products.h"
#include "base/text.h"

static constexpr int TEN_DAYS_SECONDS = 864000;

/* Splitmix64: equal seeds give equal machines with every compiler. */
struct dice {
    uint64_t state;

    uint64_t next()
    {
        uint64_t mixed = state += 0x9e3779b97f4a7c15ull;

        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9ull;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebull;
        return mixed ^ (mixed >> 31);
    }
    /* first to last, both included. */
    int range(int first, int last)
    {
        return first + static_cast<int>(next() % static_cast<uint64_t>(last - first + 1));
    }
    bool chance(int percent)
    {
        return range(1, 100) <= percent;
    }
    template <size_t size> const char *pick(const char *const (&words)[size])
    {
        return words[next() % size];
    }
};

static const char *const s_modules[] = {"a_flt", "b_flt",       "c_net",        "d_sp",
                                        "e_fs",  "load_driver", "oxnisp_driver"};
static const char *const s_strangers[] = {"nt", "win32k", "tcpip", "other"};
static const char *const s_statuses[] = {"working", "working", "working", "bypass", "initializing"};
static const char *const s_zones[] = {"UTC", "Tokyo Standard Time", "Pacific Standard Time",
                                      "India Standard Time", "W. Europe Standard Time"};
static const char *const s_services[] = {"running", "running", "stopped", "stop_pending"};

/* A machine in the making. */
struct sketch {
    dice dice;
    int products;
    bool plain;  /* nothing fails */
    bool sticky; /* products start in bypass and remain there, whatever they are ordered */
    bool blamed; /* most boots end with a blue screen of a driver, and recovery is requested */
};

static std::string quoted(const std::string &text)
{
    return "\"" + text + "\"";
}

static std::string joined(const std::vector<std::string> &parts)
{
    std::string text;

    for (const std::string &part : parts)
        text += (text.empty() ? "" : ",") + part;
    return text;
}

static std::string product_key(int index)
{
    return std::string(1, static_cast<char>('a' + index));
}

static std::string some_product(sketch &sketch)
{
    return quoted(product_key(sketch.dice.range(0, sketch.products - 1)));
}

static std::string modules(sketch &sketch)
{
    std::vector<std::string> names;

    for (int left = sketch.dice.range(0, 3); left > 0; left--)
        names.push_back(quoted(sketch.dice.pick(s_modules)));
    return "[" + joined(names) + "]";
}

/* How a product answers a command that it does not obey. */
static std::string answer(sketch &sketch)
{
    if (sketch.dice.chance(40))
        return "null";
    return text_format("{\"status\":\"%s\",\"count\":%d,\"after\":%d}",
                       sketch.dice.pick(s_statuses), sketch.dice.range(0, 10),
                       sketch.dice.range(0, 90));
}

static std::string some_status(sketch &sketch)
{
    return quoted(sketch.sticky && sketch.dice.chance(70) ? "bypass"
                                                          : sketch.dice.pick(s_statuses));
}

/* How it can be reached and how it answers. */
static void add_manners(sketch &sketch, std::vector<std::string> &members)
{
    static const char *const commands[] = {"bypass", "recover", "set_count"};

    if (sketch.dice.chance(15))
        members.push_back(text_format("\"unreachable\":%d", sketch.dice.range(0, 2)));
    if (sketch.dice.chance(20))
        members.push_back(sketch.dice.chance(30)
                              ? "\"reply_delay\":null"
                              : text_format("\"reply_delay\":%d", sketch.dice.range(0, 120)));
    if (sketch.sticky && sketch.dice.chance(70))
        members.push_back("\"answers\":{\"recover\":null}");
    else if (sketch.dice.chance(25))
        members.push_back("\"answers\":{" + quoted(sketch.dice.pick(commands)) + ":" +
                          answer(sketch) + "}");
}

static std::string product(sketch &sketch, int index)
{
    std::vector<std::string> members;

    members.push_back("\"modules\":" + modules(sketch));
    members.push_back(text_format("\"count\":%d", sketch.dice.range(0, 5)));
    if (!sketch.plain)
        members.push_back("\"status\":" + some_status(sketch));
    members.push_back(sketch.dice.chance(10)
                          ? "\"registers\":null"
                          : text_format("\"registers\":%d", sketch.dice.range(0, 120)));
    if (!sketch.plain)
        add_manners(sketch, members);
    if (index > 0 && sketch.dice.chance(5))
        members.push_back("\"product_name\":\"a\""); /* two of one name */
    return quoted(product_key(index)) + ":{" + joined(members) + "}";
}

static std::string frames(sketch &sketch)
{
    std::vector<std::string> frames = {"\"nt!KeBugCheckEx+0x107\""};

    for (int left = sketch.dice.range(sketch.blamed ? 1 : 0, 3); left > 0; left--)
        frames.push_back(quoted(std::string(sketch.dice.chance(sketch.blamed ? 95 : 65)
                                                ? sketch.dice.pick(s_modules)
                                                : sketch.dice.pick(s_strangers)) +
                                (sketch.dice.chance(50) ? "!Work+0x2" : "+0x1a2b")));
    return "\"frames\":[" + joined(frames) + "]";
}

static std::string crash(sketch &sketch)
{
    std::vector<std::string> members;

    members.push_back(frames(sketch));
    if (sketch.dice.chance(20))
        members.push_back("\"minidump\":false");
    if (sketch.dice.chance(25))
        members.push_back("\"complete\":true");
    if (sketch.dice.chance(30))
        members.push_back(text_format("\"written\":%d", sketch.dice.range(0, 200)));
    if (sketch.dice.chance(40))
        members.push_back(sketch.dice.chance(15)
                              ? "\"recorded\":null"
                              : text_format("\"recorded\":%d", sketch.dice.range(0, 400)));
    return "{" + joined(members) + "}";
}

static std::string how_it_ends(sketch &sketch)
{
    if (sketch.plain || sketch.dice.chance(sketch.blamed ? 10 : 35))
        return "\"ends\":\"clean\"";
    if (sketch.dice.chance(sketch.blamed ? 20 : 40))
        return "\"ends\":\"power_loss\"";
    return "\"ends\":\"blue_screen\",\"crash\":" + crash(sketch);
}

static std::string some_devices(sketch &sketch)
{
    if (sketch.dice.chance(25))
        return "[]";
    return "[{\"product\":" + some_product(sketch) +
           (sketch.dice.chance(70) ? ",\"device_id\":\"d1\",\"agent_version\":\"1.2\"}]" : "}]");
}

static std::string management(sketch &sketch)
{
    std::vector<std::string> members;

    if (sketch.dice.chance(40))
        members.push_back("\"devices\":" + some_devices(sketch));
    if (sketch.dice.chance(20))
        members.push_back(text_format("\"error\":%d", sketch.dice.range(0, 1)));
    if (sketch.dice.chance(20))
        members.push_back(sketch.dice.chance(30) ? "\"answer\":null"
                                                 : text_format("\"answer\":{\"errcode\":%d}",
                                                               sketch.dice.range(0, 1)));
    if (sketch.dice.chance(20))
        members.push_back(text_format("\"echo_error\":%d", sketch.dice.range(0, 1)));
    if (sketch.dice.chance(20))
        members.push_back(text_format("\"delay\":%d,\"echo_delay\":%d", sketch.dice.range(0, 90),
                                      sketch.dice.range(0, 90)));
    if (sketch.dice.chance(10))
        members.push_back(sketch.dice.chance(50) ? "\"silent\":true" : "\"silent\":false");
    members.push_back(sketch.dice.chance(60) ? "\"link\":true" : "\"link\":false");
    return "{" + joined(members) + "}";
}

#define DRIVER_FOLDER "{base}\\\\Quorvel\\\\OXNI3_CFG\\\\"
#define UPDATE_FILE   "\"path\":\"" DRIVER_FOLDER "driver\\\\oxni_driver_updata.cfg\""

/* Files at a boot: crash records of the platform's drivers, an update of the drivers, and a dump
 * that was created at another time than it was written. */
static std::string files(sketch &sketch)
{
    std::vector<std::string> files;

    if (sketch.dice.chance(15))
        files.push_back(text_format("{\"path\":\"{bin}\\\\crash_config.cfg\",\"record_count\":%d},"
                                    "{\"path\":\"" DRIVER_FOLDER
                                    "oxnisp_driver\\\\crash_config.cfg\","
                                    "\"record_count\":%d}",
                                    sketch.dice.range(0, 5), sketch.dice.range(0, 3)));
    if (sketch.dice.chance(6))
        files.push_back("{" UPDATE_FILE ",\"text\":\"x\"}");
    if (sketch.dice.chance(10))
        files.push_back("{\"path\":\"C:\\\\Windows\\\\Minidump\\\\copied.dmp\"," + frames(sketch) +
                        text_format(",\"written\":%d,\"created\":\"2024-0%d-1%dT0%d:30:00Z\"}",
                                    sketch.dice.range(0, 200), sketch.dice.range(1, 9),
                                    sketch.dice.range(0, 9), sketch.dice.range(0, 9)));
    return "\"files\":[" + joined(files) + "]";
}

static const char *base_folder(sketch &sketch)
{
    return sketch.dice.chance(50) ? "\"base_folder\":false" : "\"base_folder\":true";
}

/* Changes of the machine at a boot. */
static std::string machine(sketch &sketch)
{
    static const char *const faults[] = {"{}", "{}", "{\"OpenDumpFileWide\":2147942402}",
                                         "{\"GetStackTrace\":2147500037}"};
    std::vector<std::string> members;

    if (sketch.dice.chance(20))
        members.push_back("\"time_zone\":" + quoted(sketch.dice.pick(s_zones)));
    if (!sketch.plain && sketch.dice.chance(15))
        members.push_back(text_format("\"services\":{\"load_driver\":[\"%s\"],"
                                      "\"oxnisp_driver\":[\"%s\"]}",
                                      sketch.dice.pick(s_services), sketch.dice.pick(s_services)));
    if (!sketch.plain)
        members.push_back(files(sketch));
    if (!sketch.plain && sketch.dice.chance(6))
        members.push_back(base_folder(sketch));
    if (!sketch.plain && sketch.dice.chance(10))
        members.push_back(std::string("\"engine\":{\"fails\":") + sketch.dice.pick(faults) + "}");
    if (sketch.dice.chance(10))
        members.push_back(
            text_format("\"registry\":[{\"key\":\"SYSTEM\\\\CurrentControlSet\\\\Services\\\\"
                        "load_driver\",\"name\":\"TimerMaxCount\",\"data\":\"%d\"}]",
                        sketch.dice.range(-1, 14)));
    return "{" + joined(members) + "}";
}

static std::string log_of_boot(sketch &sketch)
{
    if (sketch.dice.chance(4))
        return "null";
    if (sketch.dice.chance(10))
        return "{\"winlogon\":null}";
    if (sketch.dice.chance(5))
        return "{\"start\":null}";
    return text_format("{\"winlogon\":%d}",
                       sketch.dice.range(5, sketch.dice.chance(20) ? 300 : 60));
}

/* A step of which the agent must run, as members. */
static std::string agent_step(sketch &sketch)
{
    static const char *const lines[] = {"bypass -p", "bypass", "bypass -rx", "bypass -r", "other"};
    std::string who = some_product(sketch);
    int which = sketch.dice.range(1, 100);

    if (which <= 25)
        return "\"register\":" + who;
    if (which <= 45)
        return "\"unsubscribe\":" + who;
    if (which <= 65)
        return "\"tell\":" + who;
    if (which <= 75)
        return "\"send\":" + who + ",\"message\":{\"product_name\":\"z\",\"type\":" +
               (sketch.dice.chance(80) ? "\"conflict\"" : "\"nonsense\"") +
               ",\"count\":1,\"status\":\"working\",\"data\":{\"driver_module\":[]}}";
    if ((sketch.sticky || sketch.blamed) && sketch.dice.chance(40))
        return "\"console\":\"bypass -r\"";
    return "\"console\":" +
           quoted(sketch.plain ? lines[sketch.dice.range(0, 2)] : sketch.dice.pick(lines));
}

static std::string product_change(sketch &sketch)
{
    std::vector<std::string> members;

    members.push_back(text_format("\"count\":%d", sketch.dice.range(0, 10)));
    if (!sketch.plain) {
        members.push_back("\"status\":" + some_status(sketch));
        add_manners(sketch, members);
    }
    return "\"product\":" + some_product(sketch) + ",\"set\":{" + joined(members) + "}";
}

/* A registration without effect. The next one of the product is an ordinary one. */
static std::string odd_registration(sketch &sketch)
{
    return "\"product\":" + some_product(sketch) +
           ",\"set\":{\"registration\":{\"product_name\":\"b\",\"type\":" +
           (sketch.dice.chance(50) ? "\"conflict\"" : "\"reg\"") +
           text_format(",\"count\":%d,\"status\":\"%s\",\"data\":{\"driver_module\":%s}}}",
                       sketch.dice.range(0, 11),
                       sketch.plain ? "working" : sketch.dice.pick(s_statuses),
                       modules(sketch).c_str());
}

/* A step that needs no agent, as members. */
static std::string machine_step(sketch &sketch)
{
    static const char *const calls[] = {"\"oxni_timer_start\"", "\"OpenEventLogW\",\"error\":5",
                                        "\"wdu_json_dump_file_ejs\"",
                                        "\"oxni_path_del_file_u\",\"error\":32,\"times\":9"};
    int which = sketch.dice.range(1, sketch.plain ? 60 : 100);

    if (which <= 25)
        return sketch.dice.chance(20)
                   ? "\"link\":2"
                   : (sketch.dice.chance(60) ? "\"link\":true" : "\"link\":false");
    if (which <= 45)
        return product_change(sketch);
    if (which <= 55)
        return "\"management\":" + management(sketch);
    if (which <= 60)
        return odd_registration(sketch);
    if (which <= 67)
        return "\"machine\":{\"time_zone\":" + quoted(sketch.dice.pick(s_zones)) + "}";
    if (which <= 72)
        return std::string("\"machine\":{") + base_folder(sketch) + "}";
    if (which <= 83)
        return std::string("\"fail\":") + sketch.dice.pick(calls) +
               text_format(",\"nth\":%d", sketch.dice.range(1, sketch.dice.chance(50) ? 1 : 6));
    if (which <= 90)
        return text_format("\"clock\":\"2024-03-%02dT%02d:%02d:00Z\"", sketch.dice.range(6, 9),
                           sketch.dice.range(0, 23), sketch.dice.range(0, 59));
    if (which <= 96)
        return "\"file\":{" UPDATE_FILE ",\"text\":\"x\"}";
    return "\"delete_file\":\"" DRIVER_FOLDER "driver\\\\oxni_driver_updata.cfg\"";
}

/* Half of all moments are whole seconds, where other things happen, too. */
static int some_moment(sketch &sketch, int from_ms, int until_ms)
{
    int ms = sketch.dice.range(from_ms, until_ms);

    return sketch.dice.chance(50) ? ms / 1000 * 1000 : ms;
}

static std::string seconds_text(int ms)
{
    return text_format("%d.%03d", ms / 1000, ms % 1000);
}

/* Steps in the order of time; agent_at: when it starts. All in ms. */
static std::string steps(sketch &sketch, int from, int until, int agent_at)
{
    std::vector<std::string> texts;
    std::vector<int> times;
    bool running = false, by_itself = agent_at >= 0;

    for (int left = sketch.dice.range(0, sketch.dice.chance(30) ? 20 : 6); left > 0; left--)
        times.push_back(some_moment(sketch, from, until));
    std::sort(times.begin(), times.end());
    for (int time : times) {
        std::string what;

        if (by_itself && time > agent_at) {
            running = true;
            by_itself = false;
        }
        if (sketch.dice.chance(12) && !by_itself) {
            what = !running
                       ? "\"agent\":\"start\""
                       : (sketch.dice.chance(70) ? "\"agent\":\"restart\"" : "\"agent\":\"stop\"");
            running = what != "\"agent\":\"stop\"";
        } else {
            what = running && sketch.dice.chance(60) ? agent_step(sketch) : machine_step(sketch);
        }
        texts.push_back("{\"at\":" + seconds_text(time) + "," + what + "}");
    }
    return "[" + joined(texts) + "]";
}

static std::string boot(sketch &sketch)
{
    int uptime = sketch.dice.chance(6)
                     ? sketch.dice.range(TEN_DAYS_SECONDS - 5000, TEN_DAYS_SECONDS + 100)
                     : 0;
    int until = uptime * 1000 + (sketch.dice.chance(80) ? some_moment(sketch, 100000, 900000)
                                                        : some_moment(sketch, 900000, 8000000));
    int agent = sketch.dice.range(1, 60);
    std::vector<std::string> members;

    members.push_back(text_format("\"uptime\":%d,\"until\":%s,\"agent_start\":%d", uptime,
                                  seconds_text(until).c_str(), agent));
    if (sketch.dice.chance(40))
        members.push_back("\"log\":" + log_of_boot(sketch));
    members.push_back("\"machine\":" + machine(sketch));
    members.push_back(how_it_ends(sketch));
    members.push_back("\"steps\":" + steps(sketch, uptime * 1000, until, (uptime + agent) * 1000));
    return "{" + joined(members) + "}";
}

void machine_generate(rapidjson::Document &document, uint64_t seed)
{
    sketch sketch = {{seed}, 0, false, false, false};
    std::vector<std::string> products, boots;
    std::string text;

    sketch.products = sketch.dice.range(1, 5);
    sketch.plain = sketch.dice.chance(15);
    sketch.sticky = !sketch.plain && sketch.dice.chance(15);
    sketch.blamed = !sketch.plain && sketch.dice.chance(15);
    for (int index = 0; index < sketch.products; index++)
        products.push_back(product(sketch, index));
    for (int left = sketch.dice.range(2, 8); left > 0; left--)
        boots.push_back(boot(sketch));
    text = "{\"products\":{" + joined(products) + "},\"management\":" + management(sketch) +
           ",\"before\":{" + how_it_ends(sketch) + "},\"boots\":[" + joined(boots) + "]}";
    document.Parse(text.data(), text.size());
}

/* A step that must not change anything. who: a product of the machine. */
static json_value noise_step(double at, int which, const std::string &who,
                             rapidjson::Document::AllocatorType &allocator)
{
    rapidjson::Document step(&allocator);
    std::string text = text_format("{\"at\":%.3f,", at);

    if (which == 0)
        text += "\"console\":\"bypass -p\"}";
    else
        text += "\"send\":" + quoted(who) +
                ",\"message\":{\"product_name\":\"z\",\"type\":\"conflict\",\"count\":1,"
                "\"status\":\"bypass\",\"data\":{\"driver_module\":[\"a_flt\",\"nt\"]}}}";
    step.Parse(text.data(), text.size());
    return json_value(step, allocator);
}

/* The time of the step after one, or of the end of the boot. */
static double next_moment(const json_value &boot, rapidjson::SizeType index)
{
    const json_value &steps = boot["steps"];

    if (index + 1 < steps.Size())
        return steps[index + 1]["at"].GetDouble();
    return boot.HasMember("until") ? boot["until"].GetDouble() : steps[index]["at"].GetDouble();
}

/* After a step of the same kind, the agent runs. What that step started must complete with and
 * without the noise, so neither the agent nor the boot may end at the same moment. */
void machine_add_noise(rapidjson::Document &document, uint64_t seed)
{
    dice dice = {seed};

    for (json_value &boot : document["boots"].GetArray()) {
        json_value noisy(rapidjson::kArrayType);

        if (!boot.HasMember("steps"))
            continue;
        for (rapidjson::SizeType i = 0; i < boot["steps"].Size(); i++) {
            const json_value &step = boot["steps"][i];
            double at = step["at"].GetDouble();
            bool fits =
                next_moment(boot, i) >= at + 1 &&
                (node_member(&step, "tell") != nullptr || node_member(&step, "console") != nullptr);
            std::string who = node_text_of(&step, "tell", "");

            noisy.PushBack(json_value(step, document.GetAllocator()), document.GetAllocator());
            for (int left = fits ? dice.range(1, 4) : 0; left > 0; left--)
                noisy.PushBack(noise_step(at, who.empty() ? 0 : dice.range(0, 1), who,
                                          document.GetAllocator()),
                               document.GetAllocator());
        }
        boot["steps"] = noisy;
    }
}
