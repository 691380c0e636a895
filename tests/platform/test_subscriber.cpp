#include "platform_test.h"

#include <oxni/base/subscribee.h>
#include <oxni/base/time.h>

namespace
{
const char SCHEMA[] = "{\"type\":\"object\",\"properties\":{"
                      "\"type\":{\"type\":\"string\",\"enum\":[\"reg\",\"modify\"]},"
                      "\"count\":{\"type\":\"integer\",\"minimum\":0,\"maximum\":10},"
                      "\"data\":{\"type\":\"object\",\"properties\":{\"list\":{\"type\":\"array\","
                      "\"items\":{\"type\":\"string\"}}},\"required\":[\"list\"]}},"
                      "\"required\":[\"type\",\"count\"]}";

class subscribers : public platform_test
{
  protected:
    static void on_service(int32_t, void *, int32_t moment, json_t *message, oxni_subscriber *who)
    {
        const oxni_subscriber_attr *attr = oxni_subscriber_get_attr(who);
        note("m" + std::to_string(moment) + ":" + attr->name +
             (message == NULL
                  ? ""
                  : std::string("=") + json_string_value(json_object_get(message, "type"))));
        if (moment == OXNI_MOMENT_MESSAGE && s_push_at_once)
            push(who, "cmd");
    }
    static void on_event(oxni_subscriber *who, uint32_t event, void *, json_t *message)
    {
        note("e" + std::to_string(event) + ":" + oxni_subscriber_get_attr(who)->name +
             (message == NULL ? "" : std::string("=") + json_string_value(message)));
    }
    static void on_reply(int32_t error, void *cookie, oxni_subscriber *who, void *reserved)
    {
        EXPECT_EQ(nullptr, reserved);
        note("r" + std::to_string(error) + ":" + static_cast<const char *>(cookie) + "@" +
             oxni_subscriber_get_attr(who)->name);
    }
    static void push(oxni_subscriber *who, const char *text)
    {
        json_t *message = json_string(text);
        EXPECT_EQ(0, oxni_subscribee_pushback(who, message, const_cast<char *>(text), on_reply));
        json_decref(message);
    }
    void SetUp() override
    {
        platform_test::SetUp();
        s_push_at_once = false;
        ASSERT_EQ(0, oxni_subscribee_install("svc", SCHEMA, 0, on_service, NULL));
        oxnih_core_set_observer(
            [](const oxnih_event *event, void *) {
                if (event->kind == OXNIH_EVENT_REFUSED)
                    s_refused = event->text;
            },
            NULL);
        s_refused.clear();
    }
    static oxni_subscriber *make(const char *name)
    {
        oxni_subscriber_attr attr = {"ns", name, NULL};
        return oxni_subscriber_new(&attr);
    }
    static oxni_subscriber *subscribed(const char *name)
    {
        oxni_subscriber *made = make(name);
        EXPECT_EQ(0, oxni_subscriber_subscribe(
                         made, "svc", json_of("{\"type\":\"reg\",\"count\":1}"), on_event));
        run(0);
        notes();
        return made;
    }
    static void run(uint64_t ms)
    {
        EXPECT_EQ(0, oxnih_core_run_until(oxni_time_get_tick_cout() + ms));
    }

    static bool s_push_at_once;
    static std::string s_refused;
};

bool subscribers::s_push_at_once;
std::string subscribers::s_refused;

TEST_F(subscribers, the_service_is_told_first)
{
    oxni_subscriber *a = make("a"), *b = make("b");
    json_t *reg = json_of("{\"type\":\"reg\",\"count\":1}");

    s_push_at_once = true;
    EXPECT_EQ(0, oxni_subscriber_subscribe(a, "svc", reg, on_event));
    EXPECT_EQ(0, oxni_subscriber_pushforward(a, json_of("{\"type\":\"modify\",\"count\":1}"),
                                             const_cast<char *>("f"), on_reply));
    EXPECT_EQ(0, oxni_subscriber_subscribe(b, "svc", reg, on_event));
    EXPECT_EQ(-1, oxni_subscriber_subscribe(a, "svc", reg, on_event)); /* already */
    EXPECT_EQ("", notes());
    run(0);
    EXPECT_EQ("m1:a=reg m3:a e0:a m1:a=modify m1:b=reg m3:b e0:b "
              "e1:a=cmd e1:a=cmd r0:f@a e1:b=cmd r0:cmd@a r0:cmd@a r0:cmd@b",
              notes());
    EXPECT_EQ(0U, oxnih_core_pending_replies());
    EXPECT_EQ(1U, reg->refcount);
}

TEST_F(subscribers, messages_are_held_to_the_schema)
{
    const struct {
        const char *message;
        const char *why; /* NULL: it holds */
    } rows[] = {
        {"{\"type\":\"reg\",\"count\":0}",                                       NULL                                                  },
        {"{\"type\":\"reg\",\"count\":10,\"data\":{\"list\":[]},\"more\":null}", NULL                                                  },
        {"{\"type\":\"reg\",\"count\":11}",                                      "member \"/count\" fails \"maximum\""                 },
        {"{\"type\":\"reg\",\"count\":-1}",                                      "member \"/count\" fails \"minimum\""                 },
        {"{\"type\":\"reg\",\"count\":1.5}",                                     "member \"/count\" fails \"type\""                    },
        {"{\"type\":\"reg\",\"count\":true}",                                    "member \"/count\" fails \"type\""                    },
        {"{\"type\":\"Reg\",\"count\":1}",                                       "member \"/type\" fails \"enum\""                     },
        {"{\"count\":1}",                                                        "member \"\" fails \"required\": \"type\" is missing" },
        {"{\"type\":\"reg\"}",                                                   "member \"\" fails \"required\": \"count\" is missing"},
        {"{\"type\":\"reg\",\"count\":1,\"data\":{\"x\":1}}",
         "member \"/data\" fails \"required\": \"list\" is missing"                                                                    },
        {"{\"type\":\"reg\",\"count\":1,\"data\":{\"list\":[\"a\",2]}}",
         "member \"/data/list/1\" fails \"type\""                                                                                      },
        {"[1]",                                                                  "member \"\" fails \"type\""                          },
    };
    oxni_subscriber *sender = subscribed("a");

    for (const auto &row : rows) {
        s_refused.clear();
        EXPECT_EQ(0, oxni_subscriber_pushforward(sender, json_of(row.message),
                                                 const_cast<char *>("f"), on_reply));
        run(0);
        EXPECT_EQ(row.why == NULL ? "" : row.why, s_refused) << row.message;
        EXPECT_EQ(row.why == NULL ? "m1:a=reg r0:f@a" : "r22:f@a", notes()) << row.message;
    }
    oxnih_core_set_lenient(1);
    EXPECT_EQ(0, oxni_subscriber_pushforward(sender, json_of("{\"type\":\"any\"}"), NULL, NULL));
    run(0);
    EXPECT_EQ("m1:a=any", notes());
}

TEST_F(subscribers, a_refused_registration_may_be_tried_again)
{
    oxni_subscriber *a = make("a");

    EXPECT_EQ(0, oxni_subscriber_subscribe(a, "svc", json_of("{\"type\":\"reg\"}"), on_event));
    run(0);
    EXPECT_EQ("member \"\" fails \"required\": \"count\" is missing", s_refused);
    EXPECT_EQ(0, oxni_subscriber_subscribe(a, "later", json_of("{}"), on_event));
    run(0);
    EXPECT_EQ("there is no such service", s_refused);
    EXPECT_EQ(-1, oxni_subscriber_pushforward(a, json_of("{}"), NULL, NULL));
    EXPECT_EQ("", notes());
    EXPECT_EQ(0, oxni_subscriber_subscribe(a, "svc", json_of("{\"type\":\"reg\",\"count\":1}"),
                                           on_event));
    run(0);
    EXPECT_EQ("m1:a=reg m3:a e0:a", notes());
}

TEST_F(subscribers, arguments_that_are_missing)
{
    oxni_subscriber *a = make("a");
    oxni_subscriber_attr no_name = {"ns", NULL, NULL};
    json_t *message = json_of("{}");

    EXPECT_EQ(nullptr, oxni_subscriber_new(NULL));
    EXPECT_EQ(nullptr, oxni_subscriber_new(&no_name));
    EXPECT_EQ(nullptr, (oxnih_memory_fail(1, 0), make("x")));
    EXPECT_EQ(-1, oxni_subscriber_subscribe(NULL, "svc", message, on_event));
    EXPECT_EQ(-1, oxni_subscriber_subscribe(a, NULL, message, on_event));
    EXPECT_EQ(-1, oxni_subscriber_subscribe(a, "svc", NULL, on_event));
    EXPECT_EQ(-1, oxni_subscriber_subscribe(a, "svc", message, NULL));
    EXPECT_EQ(-1, oxni_subscribee_pushback(a, NULL, NULL, on_reply));
    EXPECT_EQ(-1, oxni_subscribee_pushback(NULL, message, NULL, on_reply));
    EXPECT_EQ(-1, oxni_subscribee_install("svc", SCHEMA, 0, on_service, NULL)); /* in use */
    EXPECT_EQ(-1, oxni_subscribee_install("s2", "{", 0, on_service, NULL));
    EXPECT_EQ(-1, oxni_subscribee_install("s2", "[]", 0, on_service, NULL));
    EXPECT_EQ(-1, oxni_subscribee_install("s2", SCHEMA, 0, NULL, NULL));
    oxni_subscriber_retain(NULL);
    oxni_subscriber_delete(NULL);
    EXPECT_EQ(nullptr, oxni_subscriber_get_attr(NULL));
}

TEST_F(subscribers, replies_come_late_never_or_with_an_error)
{
    const struct {
        const char *row;
        int32_t unreachable;
        uint64_t delay;
        const char *at_once, *after_5;
        uint64_t pending;
    } rows[] = {
        {"ordinary",             0,  0,          "e1:a=x r0:x@a", "",       0},
        {"late",                 0,  5,          "e1:a=x",        "r0:x@a", 0},
        {"never",                0,  UINT64_MAX, "e1:a=x",        "",       1},
        {"unreachable",          77, 0,          "r77:x@a",       "",       0},
        {"unreachable, at once", 77, 5,          "r77:x@a",       "",       0},
    };

    for (const auto &row : rows) {
        uint64_t before = oxnih_core_pending_replies();
        oxni_subscriber *a = subscribed("a");
        oxnih_subscriber_set_unreachable(a, row.unreachable);
        oxnih_subscriber_set_reply_delay(a, row.delay);
        push(a, "x");
        EXPECT_EQ("", notes());
        run(0);
        EXPECT_EQ(row.at_once, notes()) << row.row;
        run(4);
        EXPECT_EQ("", notes()) << row.row;
        run(1);
        EXPECT_EQ(row.after_5, notes()) << row.row;
        run(100000);
        EXPECT_EQ("", notes()) << row.row;
        EXPECT_EQ(before + row.pending, oxnih_core_pending_replies()) << row.row;
    }
}

TEST_F(subscribers, who_leaves_is_reported_once_before_the_error_replies)
{
    oxni_subscriber *a = subscribed("a");

    oxnih_subscriber_set_reply_delay(a, 50);
    push(a, "delivered");
    run(0);
    push(a, "on the way");
    oxnih_subscriber_leave(a);
    oxnih_subscriber_leave(a);
    push(a, "after");
    notes();
    run(100);
    EXPECT_EQ("m2:a r2:on the way@a r2:after@a r2:delivered@a", notes());
    EXPECT_EQ(-1, oxni_subscriber_pushforward(a, json_of("{}"), NULL, NULL));
    EXPECT_STREQ("a", oxni_subscriber_get_attr(a)->name); /* as long as somebody holds it */
}

TEST_F(subscribers, leaving_before_the_registration_arrived_is_silent)
{
    oxni_subscriber *a = make("a");

    oxni_subscriber_subscribe(a, "svc", json_of("{\"type\":\"reg\",\"count\":1}"), on_event);
    oxnih_subscriber_leave(a);
    run(0);
    EXPECT_EQ("", notes());
    EXPECT_EQ(1U, oxnih_subscriber_references(a));
    oxni_subscriber_delete(a);
    EXPECT_EQ(nullptr, oxni_subscriber_get_attr(a)); /* nobody is left who holds it */
    EXPECT_NE("", complaints());
    a = make("a");
    oxnih_subscriber_leave(a); /* that never tried */
    EXPECT_STREQ("a", oxni_subscriber_get_attr(a)->name);
    EXPECT_EQ(-1, oxni_subscriber_subscribe(a, "svc", json_of("{}"), on_event));
    oxni_subscriber_delete(a);
    EXPECT_EQ(nullptr, oxni_subscriber_get_attr(a));
    EXPECT_NE("", complaints());
}

TEST_F(subscribers, references)
{
    uint64_t excess = oxnih_core_excess_deletes();
    oxni_subscriber *a = subscribed("a");

    EXPECT_EQ(1U, oxnih_subscriber_references(a));
    oxni_subscriber_retain(a);
    EXPECT_EQ(2U, oxnih_subscriber_references(a));
    oxni_subscriber_delete(a);
    oxni_subscriber_delete(a);
    EXPECT_EQ(0U, oxnih_subscriber_references(a));
    EXPECT_STREQ("ns", oxni_subscriber_get_attr(a)->ns); /* the platform holds it */
    EXPECT_EQ("", complaints());
    oxni_subscriber_delete(a);
    EXPECT_EQ("oxni_subscriber_delete: no reference of subscriber ns/a is left to give back but "
              "the platform's own",
              complaints());
    EXPECT_EQ(excess + 1, oxnih_core_excess_deletes());
    push(a, "x");
    run(0);
    EXPECT_EQ("e1:a=x r0:x@a", notes());
}

TEST_F(subscribers, a_handle_that_nobody_holds_is_gone)
{
    uint64_t excess = oxnih_core_excess_deletes();
    oxnih_memory_stats before, after;

    oxnih_memory_set_mode(OXNIH_MEMORY_GUARD);
    oxnih_memory_get_stats(&before);
    oxni_subscriber *a = make("a");
    oxni_subscriber_delete(a);
    oxnih_memory_get_stats(&after);
    EXPECT_EQ(before.live_blocks, after.live_blocks);
    oxni_subscriber_delete(a);
    EXPECT_EQ(excess + 1, oxnih_core_excess_deletes());
    EXPECT_EQ(nullptr, oxni_subscriber_get_attr(a));
    std::string said = complaints();
    EXPECT_EQ(0U, said.find("oxni_subscriber_delete: ")) << said;
    EXPECT_NE(std::string::npos, said.find("\noxni_subscriber_get_attr: ")) << said;
    /* A push that is on its way holds it until the reply. */
    oxni_subscriber *b = subscribed("b");
    push(b, "x");
    oxnih_subscriber_leave(b);
    oxni_subscriber_delete(b);
    run(0);
    EXPECT_EQ("m2:b r2:x@b", notes());
    EXPECT_EQ(nullptr, oxni_subscriber_get_attr(b));
    EXPECT_NE("", complaints());
}

TEST_F(subscribers, a_reset_forgets_all_without_calling_anybody)
{
    oxnih_memory_stats before, after;

    oxnih_memory_get_stats(&before);
    oxni_subscriber *a = make("a");
    json_t *reg = json_loads("{\"type\":\"reg\",\"count\":1}", 0, NULL);
    oxni_subscriber_subscribe(a, "svc", reg, on_event);
    run(0);
    oxnih_subscriber_set_reply_delay(a, UINT64_MAX);
    push(a, "x");
    run(0);
    push(a, "y");
    oxni_subscriber_pushforward(a, reg, NULL, NULL);
    oxnih_subscriber_leave(a);
    json_decref(reg);
    notes();
    oxnih_core_reset();
    run(100000);
    EXPECT_EQ("", notes());
    EXPECT_EQ(0U, oxnih_core_pending_replies());
    oxnih_memory_get_stats(&after);
    EXPECT_EQ(before.live_blocks, after.live_blocks);
    EXPECT_EQ(0, oxni_subscribee_install("svc", SCHEMA, 0, on_service, NULL));
}
} // namespace
