/*
 * Input that reaches the plug-in through the platform: messages of its subscribers and answers of the
 * management side, to the loaded DLL in a machine of the development host. The agent starts afresh
 * after a number of inputs, and is checked for leaks.
 */
#include "fuzz.h"

#include <cstring>
#include <windows.h>

#include <oxni/base/ejs.h>
#include <oxni/base/json.h>
#include <oxni/base/log.h>
#include <oxni/base/subscribee.h>
#include <oxni/base/subscriber.h>

#include "agent/agent.h"
#include "liboxni_core/host.h"
#include "liboxnibase/host.h"
#include "play/agent_process.h"
#include "play/play.h"
#include "participants/products.h"
#include "scenario/timeline.h"
#include "scenario/journal.h"
#include "harness/leaks.h"
#include "base/run_folder.h"
#include "base/text.h"

/* Inputs from one start of the agent to the next; reports that wait for an answer add up. */
static constexpr uint32_t MESSAGES_PERIOD = 128u;
static constexpr uint32_t ANSWERS_PERIOD = 32u;
static constexpr int BOOT = 1709802000; /* when a scenario without a time begins */
static constexpr char LINK_PATH[] = "/:broadcast/dbg/oxni/quality_opr";
static constexpr char ALARM_PATH[] = "/oxni/quality_opr";

static const std::vector<const char *> s_keys = {"product_name", "type", "status",
                                                 "count",        "data", "driver_module"};
static const std::vector<const char *> s_words = {
    "reg",   "modify", "conflict", "working",    "bypass",  "initializing", "guard_flt",
    "guard", "XNI",    "reg",      "crash_info", "recover", "set_count",    "none",
    "p1",    "p2",     "p3",       "modify",     "bypass"};

static std::vector<oxni_subscriber *> s_subscribers;
static uint64_t s_left;   /* subscribers, since the agent's start */
static chance *s_answers; /* for those given inside of an input */

static void ignore(oxni_subscriber *, uint32_t, void *, json_t *)
{
}

static void look_through(const void *plugin)
{
    uint64_t failed = 0;

    for (const happening &what : journal_all())
        failed += what.kind == HAPPENED_RESPONSE && what.number != 0;
    for (const std::string &lost : leaks_of_agent(plugin, failed))
        violated(lost);
}

/* Unsubscribing gives a reference back whether the handle was filed or not: once for each that
 * leaves. */
static void complained(const char *text, void *)
{
    if (strstr(text, "no reference of subscriber") == nullptr || s_left == 0)
        violated(text);
    s_left--;
}

static void put_document(const char *name, json_t *document)
{
    for (const char *folder : {"agent\\var", "agent\\var\\bypass_mgr"})
        CreateDirectoryW(text_wide(fuzz_memory.path + folder).c_str(), nullptr);
    /* Nothing else is a document. */
    if (json_is_object(document) &&
        wdu_json_dump_file_ejs(document, agent_data_path(name).c_str()) != 0)
        violated(std::string(name) + " cannot be written");
    json_decref(document);
}

/* This boot's store blames a module, so that every product that registers is ordered into bypass
 * and reported. */
static void blame(void)
{
    json_t *store = json_loads(R"({"start_time": 0, "data": {"crash_info": {"path": "C:\\x.dmp",
                                  "create_time": "2024-03-07 09:00:00", "module_name": "m"}}})",
                               0, nullptr);

    json_object_set_new(store, "start_time", json_integer(BOOT));
    put_document("bypass_mgr_persistence.ejs", store);
}

/* Sound documents with generated content; the store is mostly of this boot. */
static void put_odd_documents(chance &chance)
{
    static const std::vector<const char *> keys = {
        "start_time", "data", "crash_info", "module_name", "create_time", "path",
        "count",      "p1",   "p2",         "status",      "dump_time"};

    for (const char *name :
         {"bypass_mgr_persistence.ejs", "bypass_mgr_upload.ejs", "bypass_mgr_dumprecord.ejs"}) {
        std::string text = odd_json(keys, s_words, chance);
        json_t *document = json_loadb(text.data(), text.size(), 0, nullptr);

        if (json_is_object(document) && !chance.one_in(4))
            json_object_set_new(document, "start_time", json_integer(BOOT));
        put_document(name, document);
    }
}

/* What lies on the disk when the agent starts. */
enum disk {
    DISK_EMPTY,
    DISK_BLAMES, /* a module, in the store of this boot */
    DISK_ODD
};

/* period: its number. The guard, and with it the look for what is lost, takes its time. */
static void start_afresh(enum disk disk, uint64_t period, chance &chance)
{
    static struct scenario scenario;

    (void)play_close();
    oxnih_memory_set_mode(period % 16 == 0 ? OXNIH_MEMORY_GUARD : OXNIH_MEMORY_PLAIN);
    s_subscribers.clear();
    s_left = 0;
    fuzz_memory.empty();
    scenario.file = "fuzz";
    scenario.document.Parse(R"({"boots": [{"agent_start": null, "until": 1000000}]})");
    play_open(scenario, {fuzz_memory.path.substr(0, fuzz_memory.path.size() - 1),
                         run_standard_plugin(), false, true});
    oxnih_log_set_sink(nullptr, nullptr);
    oxnih_log_set_level(period % 8 == 1 ? OXNI_LOG_DEBUG : -1);
    oxnih_set_complaint(complained, nullptr);
    (void)play_begin_boot();
    if (disk == DISK_BLAMES)
        blame();
    if (disk == DISK_ODD)
        put_odd_documents(chance);
    agent_process_start();
    play_run_until(10000);
}

static void open_host(void)
{
    journal_set_view(nullptr, nullptr);
    agent_watch_end(look_through);
}

static json_t *nested(size_t depth)
{
    json_t *value = json_array();

    while (depth-- > 0) {
        json_t *outer = json_array();

        json_array_append_new(outer, value);
        value = outer;
    }
    return value;
}

/* Adds what the text of a message cannot contain, or contains too rarely. */
static void make_odder(json_t *message, chance &chance)
{
    static const char *const members[] = {"product_name", "type", "status"};
    static const char *const types[] = {"reg", "reg", "modify"};
    json_t *data = json_object_get(message, "data");
    json_t *bytes = json_stringn_nocheck("\xff\xfe\x80", 3);

    if (chance.one_in(3))
        json_object_set_new(message, "type", json_string(chance.of(types)));
    if (chance.one_in(20))
        json_object_set(message, chance.of(members), bytes);
    if (chance.one_in(20))
        json_array_append(json_object_get(data, "driver_module"), bytes);
    if (chance.one_in(30))
        json_object_set_new(message, "product_name", json_string("crash_info"));
    if (chance.one_in(300))
        json_object_set_new(message, "product_name", json_string(std::string(100000, 'n').c_str()));
    if (chance.one_in(100))
        json_object_set_new(chance.one_in(2) ? data : message,
                            chance.one_in(2) ? "driver_module" : "data",
                            nested(chance.below(1500)));
    json_decref(bytes);
}

/* From a generated text, or a good one that was damaged. NULL: no JSON. */
static json_t *odd_message(chance &chance)
{
    std::string text = R"({"product_name": "p1", "type": "reg", "count": 2, "status": "bypass",
                           "data": {"driver_module": ["guard_flt", "m"]}})";

    if (chance.one_in(3))
        damage(&text, text, chance);
    else if (!chance.one_in(4))
        text = odd_json(s_keys, s_words, chance);
    json_t *message = json_loadb(text.data(), text.size(),
                                 chance.one_in(2) ? JSON_ALLOW_NUL : JSON_DECODE_ANY, nullptr);
    if (json_is_object(message))
        make_odder(message, chance);
    return message;
}

static void subscribe(json_t *message, chance &chance)
{
    std::string ns = std::string("ns") + std::to_string(chance.below(9)), name = "n";
    oxni_subscriber_attr attr = {ns.c_str(), name.c_str(), nullptr};
    oxni_subscriber *subscriber = oxni_subscriber_new(&attr);

    (void)oxni_subscriber_subscribe(subscriber, "bypass_mgr", message, ignore);
    s_subscribers.push_back(subscriber);
}

/* A command to the plug-in's own subscriber. */
static void order_driver(chance &chance)
{
    static const std::vector<const char *> keys = {"type", "reason", "count", "product_name"};
    rapidjson::Document order;

    order.Parse(odd_json(keys, s_words, chance).c_str());
    if (!order.HasParseError())
        (void)subscriber_order("XNI/BYPASS", order);
}

static void leave(size_t index)
{
    s_left++;
    oxnih_subscriber_leave(s_subscribers[index]);
    oxni_subscriber_delete(s_subscribers[index]);
    s_subscribers.erase(s_subscribers.begin() + static_cast<int>(index));
}

static void pass_time(chance &chance)
{
    static const uint64_t spans[] = {0, 0, 0, 10, 1000, 5000};

    play_run_until(timeline_now_ms() + chance.of(spans));
    if (chance.one_in(100))
        play_run_until(timeline_now_ms() + 400000);
    if (agent_state_get() != AGENT_RUNNING)
        violated("the agent does not run any more");
}

static void try_message(chance &chance, uint64_t number)
{
    static const char *const commands[] = {"bypass -p",     "bypass -r", "bypass",
                                           "bypass -x y z", "bypass -h", "bypass -p -p -p"};

    if (agent_state_get() != AGENT_RUNNING || number % MESSAGES_PERIOD == 0)
        start_afresh(static_cast<enum disk>(chance.below(3)), number / MESSAGES_PERIOD, chance);
    oxnih_core_set_lenient(!chance.one_in(4));
    json_t *message = odd_message(chance);
    size_t index = chance.below(s_subscribers.size());

    if (message != nullptr && (s_subscribers.empty() || chance.one_in(3)))
        subscribe(message, chance);
    else if (message != nullptr && chance.one_in(6))
        order_driver(chance);
    else if (message != nullptr)
        (void)oxni_subscriber_pushforward(s_subscribers[index], message, nullptr, nullptr);
    json_decref(message);
    if (s_subscribers.size() > 8)
        leave(chance.below(s_subscribers.size()));
    if (chance.one_in(20))
        oxnih_dbg_run("oxni", chance.of(commands));
    if (!s_subscribers.empty() && chance.one_in(10))
        oxnih_subscriber_set_unreachable(s_subscribers[chance.below(s_subscribers.size())],
                                         chance.one_in(2) ? 110 : 0);
    pass_time(chance);
}
FUZZ_TARGET(messages, open_host, try_message, MESSAGES_PERIOD, 400)

/* The devices that the management side reports. */
static std::string odd_echo(chance &chance)
{
    static const std::vector<const char *> keys = {"total", "info", "product", "device_id",
                                                   "agent_version"};
    static const std::vector<const char *> words = {"KVD", "p1", "d", "16.20.933"};
    std::string text = R"({"total": 1, "info": [{"product": "KVD", "device_id": "d",
                           "agent_version": "1"}]})";

    if (chance.one_in(2))
        damage(&text, text, chance);
    else if (!chance.one_in(4))
        text = odd_json(keys, words, chance);
    return text.substr(0, text.find('\0'));
}

static void answer_echo(oxnih_request *call, const char *, void *)
{
    chance &chance = *s_answers;
    std::string echo = odd_echo(chance);

    if (!chance.one_in(20))
        oxnih_dbg_answer(call, chance.one_in(10) ? 5 : 0,
                         chance.one_in(20) ? nullptr : echo.c_str(), chance.below(2000));
}

static void answer_upload(oxnih_request *request, json_t *, void *)
{
    static const std::vector<const char *> keys = {"errcode", "data"};
    chance &chance = *s_answers;
    std::string text = chance.one_in(3) ? "{\"errcode\": 0}" : odd_json(keys, s_words, chance);
    json_t *answer =
        json_loadb(text.data(), text.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);

    if (!chance.one_in(20))
        oxnih_res_answer(request, chance.one_in(8) ? 110 : 0, answer, chance.below(2000));
    json_decref(answer);
}

static void try_answer(chance &chance, uint64_t number)
{
    s_answers = &chance;
    if (agent_state_get() != AGENT_RUNNING || number % ANSWERS_PERIOD == 0) {
        start_afresh(DISK_BLAMES, number / ANSWERS_PERIOD, chance);
        oxnih_dbg_set_handler("oxni", answer_echo, nullptr);
        oxnih_res_set_handler(ALARM_PATH, answer_upload, nullptr);
    }
    std::string text = text_format(R"({"product_name": "p%llu", "type": "reg", "count": 2,
                                       "status": "working", "data": {"driver_module": ["m"]}})",
                                   static_cast<unsigned long long>(number));
    json_t *message = json_loadb(text.data(), text.size(), 0, nullptr);

    subscribe(message, chance);
    json_decref(message);
    if (s_subscribers.size() > 4)
        leave(0);
    oxnih_res_set_state(LINK_PATH, static_cast<int32_t>(chance.below(4)));
    play_run_until(timeline_now_ms() + chance.below(4000));
    if (chance.one_in(30))
        play_run_until(timeline_now_ms() + 130000);
    if (agent_state_get() != AGENT_RUNNING)
        violated("the agent does not run any more");
    s_answers = nullptr;
}
FUZZ_TARGET(answers, open_host, try_answer, ANSWERS_PERIOD, 400)
