/*
 * Random machines, written as scenarios: `run` plays the same file identically.
 * A grammar says what is random; boots and the moments of their steps are put together here.
 */
#include "machines.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>

#include "base/text.h"
#include "calls/calls.h"
#include "machine_rules.h"

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
};

/* A machine in the making. */
struct sketch {
    dice dice;
    int products;
    bool plain;  /* nothing fails */
    bool sticky; /* products start in bypass and remain there, whatever they are ordered */
    bool blamed; /* most boots end with a blue screen of a driver, and recovery is requested */
    bool odd;    /* any call can fail, and messages, files and settings can be of any form */
};

static void expand(sketch &sketch, std::string_view text, std::string &expanded);

static std::string expand(sketch &sketch, std::string_view text)
{
    std::string expanded;

    expand(sketch, text, expanded);
    return expanded;
}

static std::string product_key(int index)
{
    return std::string(1, static_cast<char>('a' + index));
}

/* The rows of one name. */
struct choice {
    int weight; /* of all */
    std::vector<const rule *> rules;
};

static std::map<std::string_view, choice> all_choices(void)
{
    std::map<std::string_view, choice> choices;

    for (const rule &rule : s_rules) {
        choice &choice = choices[rule.name];

        choice.weight += rule.weight;
        choice.rules.push_back(&rule);
    }
    return choices;
}

/* Calls that set no error have none to choose. */
static void expand_failure(dice &dice, std::string &expanded)
{
    static const std::vector<std::string> names = calls_failing();
    const std::string &name =
        names[static_cast<size_t>(dice.range(1, static_cast<int>(names.size()))) - 1];
    const std::vector<uint32_t> errors = calls_errors(name);
    const uint32_t error =
        errors[static_cast<size_t>(dice.range(1, static_cast<int>(errors.size()))) - 1];

    expanded += "'" + name + "'" + (error != 0 ? ",'error':" + std::to_string(error) : "");
}

static void expand_rule(sketch &sketch, std::string_view name, std::string &expanded)
{
    static const std::map<std::string_view, choice> choices = all_choices();

    if (name == "who") {
        expanded += product_key(sketch.dice.range(0, sketch.products - 1));
        return;
    }
    if (name == "failure") {
        expand_failure(sketch.dice, expanded);
        return;
    }
    const choice &choice = choices.at(name);
    int left = sketch.dice.range(1, choice.weight);
    auto rule = choice.rules.begin();

    while ((left -= (*rule)->weight) > 0)
        rule++;
    expand(sketch, (*rule)->text, expanded);
}

/* The end of what is before a character that no brackets enclose, or of the text. */
static size_t find_outside(std::string_view text, size_t at, char wanted)
{
    for (int depth = 0; at < text.size(); at++) {
        if (depth == 0 && text[at] == wanted)
            break;
        depth += (text[at] == '<') - (text[at] == '>');
    }
    return at;
}

/* "A|B" */
static void expand_either(sketch &sketch, std::string_view text, bool first, std::string &expanded)
{
    const size_t bar = find_outside(text, 0, '|');

    if (first)
        expand(sketch, text.substr(0, bar), expanded);
    else if (bar < text.size())
        expand(sketch, text.substr(bar + 1), expanded);
}

/* What is after the first number of a range. */
static void expand_number(sketch &sketch, int first, std::string_view rest, std::string &expanded)
{
    const size_t star = rest.find('*');
    int number = sketch.dice.range(first, atoi(rest.data()));

    if (star == std::string_view::npos) {
        expanded += std::to_string(number);
        return;
    }
    while (number-- > 0) {
        expand(sketch, rest.substr(star + 1), expanded);
        expanded += number > 0 ? "," : "";
    }
}

/* What is between two brackets. */
static void expand_inside(sketch &sketch, std::string_view text, std::string &expanded)
{
    const size_t at = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_");
    char *end;

    if (at == std::string_view::npos) {
        expand_rule(sketch, text, expanded);
        return;
    }
    if (text[at] == '?') {
        const std::string_view kind = text.substr(0, at);
        expand_either(sketch, text.substr(at + 1),
                      kind == "plain"    ? sketch.plain
                      : kind == "sticky" ? sketch.sticky
                      : kind == "blamed" ? sketch.blamed
                                         : sketch.odd,
                      expanded);
        return;
    }
    const int number = static_cast<int>(strtol(text.data(), &end, 10));
    const std::string_view rest = text.substr(static_cast<size_t>(end - text.data()) + 1);
    if (*end == '%')
        expand_either(sketch, rest, sketch.dice.chance(number), expanded);
    else
        expand_number(sketch, number, rest, expanded);
}

static void expand(sketch &sketch, std::string_view text, std::string &expanded)
{
    for (size_t at = 0; at < text.size(); at++) {
        const size_t open = std::min(text.find('<', at), text.size());

        expanded += text.substr(at, open - at);
        at = open;
        if (open == text.size())
            break;
        const size_t end = find_outside(text, at + 1, '>');

        expand_inside(sketch, text.substr(at + 1, end - at - 1), expanded);
        at = end;
    }
}

static void parse(std::string text, rapidjson::Document &document)
{
    std::replace(text.begin(), text.end(), '\'', '"');
    document.Parse<rapidjson::kParseTrailingCommasFlag>(text.c_str());
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
    std::string text;
    std::vector<int> times;
    bool running = false, by_itself = true;

    for (int left = sketch.dice.range(0, sketch.dice.chance(30) ? 20 : 6); left > 0; left--)
        times.push_back(some_moment(sketch, from, until));
    /* Most of what the plug-in does is around its start and its first checks. */
    for (int left = sketch.odd ? sketch.dice.range(0, 12) : 0; left > 0; left--)
        times.push_back(some_moment(sketch, agent_at - 1000, std::min(agent_at + 100000, until)));
    std::sort(times.begin(), times.end());
    for (int time : times) {
        const char *what = "<machine_step>";

        if (by_itself && time > agent_at) {
            running = true;
            by_itself = false;
        }
        if (sketch.dice.chance(12) && !by_itself) {
            const bool stops = running && sketch.dice.chance(30);
            what = stops ? "'agent':'stop'" : running ? "'agent':'restart'" : "'agent':'start'";
            running = !stops;
        } else if (sketch.odd && sketch.dice.chance(60)) {
            what = running ? "<odd_step>" : "<odd_failure>";
        } else if (running && sketch.dice.chance(60)) {
            what = "<agent_step>";
        }
        text += "{'at':" + seconds_text(time) + "," + expand(sketch, what) + "},";
    }
    return text;
}

static std::string boot(sketch &sketch)
{
    int uptime = sketch.dice.chance(6)
                     ? sketch.dice.range(TEN_DAYS_SECONDS - 5000, TEN_DAYS_SECONDS + 100)
                     : 0;
    int until = uptime * 1000 + (sketch.dice.chance(80) ? some_moment(sketch, 100000, 900000)
                                                        : some_moment(sketch, 900000, 8000000));
    int agent = sketch.dice.range(1, 60);

    return text_format("{'uptime':%d,'until':%s,'agent_start':%d,", uptime,
                       seconds_text(until).c_str(), agent) +
           expand(sketch, "<40%'log':<log>,>'machine':<machine>,<ends>,'steps':[") +
           steps(sketch, uptime * 1000, until, (uptime + agent) * 1000) + "]},";
}

void machine_generate(rapidjson::Document &document, uint64_t seed, bool odd)
{
    sketch sketch = {{seed}, 0, false, false, false, odd};
    std::string products, boots;

    sketch.products = sketch.dice.range(1, 5);
    sketch.plain = sketch.dice.chance(15) && !odd;
    sketch.sticky = !sketch.plain && sketch.dice.chance(15);
    sketch.blamed = !sketch.plain && sketch.dice.chance(15);
    for (int index = 0; index < sketch.products; index++)
        products += "'" + product_key(index) + "':" + expand(sketch, "<product>") +
                    (index > 0 ? expand(sketch, "<5%'product_name':'a'>},") : "},");
    for (int left = sketch.dice.range(2, 8); left > 0; left--)
        boots += boot(sketch);
    parse("{'products':{" + products + "},'boots':[" + boots + "]," +
              expand(sketch,
                     "'management':<management>,<odd?'machine':{'lenient':<50%true|false>},>"
                     "'before':{<ends>}}"),
          document);
}

/* A step that must not change anything. who: a product of the machine; empty: on the console. */
static json_value noise_step(double at, const std::string &who,
                             rapidjson::Document::AllocatorType &allocator)
{
    rapidjson::Document step(&allocator);

    parse(text_format("{'at':%.3f,", at) +
              (who.empty() ? "'console':'bypass -p'}"
                           : "'send':'" + who +
                                 "','message':{'product_name':'z','type':'conflict','count':1,"
                                 "'status':'bypass','data':{'driver_module':['a_flt','nt']}}}"),
          step);
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
                noisy.PushBack(noise_step(at, dice.chance(50) ? who : "", document.GetAllocator()),
                               document.GetAllocator());
        }
        boot["steps"] = noisy;
    }
}
