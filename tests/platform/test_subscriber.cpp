#include "platform_test.h"

#include <oxni/base/subscribee.h>

namespace
{
const char SCHEMA[] = R"({"type": "object", "required": ["type", "count"], "properties": {
    "type": {"type": "string", "enum": ["reg", "modify"]},
    "count": {"type": "integer", "minimum": 0, "maximum": 10},
    "data": {"type": "object", "required": ["list"], "properties": {
        "list": {"type": "array", "items": {"type": "string"}}}}}})";
const char REG[] = R"({"type": "reg", "count": 1})", MODIFY[] = R"({"type": "modify", "count": 1})";

class subscribers : public platform_test
{
  protected:
    /* Replies to every message with a push. */
    static void on_service(int32_t, void *, int32_t moment, json_t *message, oxni_subscriber *who)
    {
        note("m" + std::to_string(moment) + ":" + oxni_subscriber_get_attr(who)->name);
        if (message == nullptr)
            return;
        note(json_string_value(json_object_get(message, "type")));
        push(who, "cmd");
    }
    static void on_event(oxni_subscriber *who, uint32_t event, void *, json_t *message)
    {
        std::string text = message == nullptr ? "" : json_string_value(message);
        note("e" + std::to_string(event) + ":" + oxni_subscriber_get_attr(who)->name + text);
        if (text == "=ask")
            forward(who, MODIFY);
    }
    static void on_reply(int32_t error, void *cookie, oxni_subscriber *who, void *)
    {
        note("r" + std::to_string(error) + ":" + static_cast<const char *>(cookie) + "@" +
             oxni_subscriber_get_attr(who)->name);
    }
    static void push(oxni_subscriber *who, const char *text)
    {
        EXPECT_EQ(0, oxni_subscribee_pushback(who, json_of("\"=" + std::string(text) + "\""),
                                              const_cast<char *>(text), on_reply));
    }
    static int forward(oxni_subscriber *who, const char *message)
    {
        return oxni_subscriber_pushforward(who, json_of(message), const_cast<char *>("f"),
                                           on_reply);
    }
    static int subscribe(oxni_subscriber *who, const char *message, const char *service = "svc")
    {
        return oxni_subscriber_subscribe(who, service, json_of(message), on_event);
    }
    static oxni_subscriber *make(const char *name)
    {
        oxni_subscriber_attr attr = {"ns", name, nullptr};
        return oxni_subscriber_new(&attr);
    }
    static oxni_subscriber *subscribed(const char *name)
    {
        oxni_subscriber *made = make(name);
        EXPECT_EQ(0, subscribe(made, REG));
        run(0);
        notes();
        return made;
    }
    void SetUp() override
    {
        platform_test::SetUp();
        ASSERT_EQ(0, oxni_subscribee_install("svc", SCHEMA, 0, on_service, nullptr));
        oxnih_core_set_observer(
            [](const oxnih_event *event, void *) {
                if (event->kind == OXNIH_EVENT_REFUSED)
                    note(event->text);
            },
            nullptr);
    }
};

TEST_F(subscribers, the_service_is_called_first)
{
    oxni_subscriber *a = make("a"), *b = make("b");

    EXPECT_EQ(0, subscribe(a, REG));
    EXPECT_EQ(0, forward(a, MODIFY));
    EXPECT_EQ(0, subscribe(b, REG));
    EXPECT_EQ(-1, subscribe(a, REG)); /* already */
    EXPECT_EQ("", notes());
    run(0);
    EXPECT_EQ("m1:a reg m3:a e0:a m1:a modify m1:b reg m3:b e0:b "
              "e1:a=cmd e1:a=cmd r0:f@a e1:b=cmd r0:cmd@a r0:cmd@a r0:cmd@b",
              notes());
    push(b, "ask"); /* messages sent in the callback precede the reply */
    run(0);
    EXPECT_EQ("e1:b=ask m1:b modify r0:ask@b e1:b=cmd r0:f@b r0:cmd@b", notes());
}

TEST_F(subscribers, messages_are_validated_against_the_schema)
{
    /* clang-format off */
    const struct {
        const char *message;
        const char *why; /* empty: valid */
    } rows[] = {
        {R"({"type": "reg", "count": 10, "data": {"list": []}, "more": null})", ""},
        {R"({"type": "reg", "count": 11})",  R"(member "/count" fails "maximum")"},
        {R"({"type": "reg", "count": -1})",  R"(member "/count" fails "minimum")"},
        {R"({"type": "reg", "count": 1.5})", R"(member "/count" fails "type")"},
        {R"({"type": "Reg", "count": 1})",   R"(member "/type" fails "enum")"},
        {R"({"count": 1})",                  R"(member "" fails "required": "type" is missing)"},
        {R"({"type": "reg", "count": 1, "data": {}})",
         R"(member "/data" fails "required": "list" is missing)"},
        {R"({"type": "reg", "count": 1, "data": {"list": ["a", 2]}})",
         R"(member "/data/list/1" fails "type")"},
        {"[1]",                              R"(member "" fails "type")"},
    };
    /* clang-format on */
    oxni_subscriber *sender = subscribed("a");

    for (const auto &row : rows) {
        EXPECT_EQ(0, forward(sender, row.message));
        run(0);
        EXPECT_EQ(row.why[0] == '\0' ? "m1:a reg e1:a=cmd r0:f@a r0:cmd@a"
                                     : row.why + std::string(" r22:f@a"),
                  notes());
    }
    EXPECT_EQ(-1, oxni_subscribee_install("s2", "{", 0, on_service, nullptr));
    EXPECT_EQ(-1, oxni_subscribee_install("s3", "{\"pattern\": \"(\"}", 0, on_service, nullptr));
    EXPECT_EQ(-1, oxni_subscribee_install("svc", SCHEMA, 0, on_service, nullptr)); /* in use */
}

TEST_F(subscribers, a_rejected_registration_can_be_retried)
{
    oxni_subscriber *a = make("a");

    EXPECT_EQ(0, subscribe(a, "{}"));
    run(0);
    EXPECT_EQ(0, subscribe(a, REG, "later"));
    run(0);
    EXPECT_EQ(-1, forward(a, REG));
    EXPECT_EQ(0, subscribe(a, REG));
    run(0);
    EXPECT_EQ("member \"\" fails \"required\": \"type\" is missing there is no such service "
              "m1:a reg m3:a e0:a e1:a=cmd r0:cmd@a",
              notes());
}

TEST_F(subscribers, leaving_is_reported_once_before_the_error_replies)
{
    oxni_subscriber *a = subscribed("a"), *b = make("b"), *c = make("c");

    oxnih_subscriber_set_reply_delay(a, 50);
    push(a, "delivered");
    run(0);
    push(a, "on the way");
    oxnih_subscriber_leave(a);
    push(a, "after");
    EXPECT_EQ(-1, forward(a, MODIFY));
    /* A subscriber that leaves before its registration is delivered, or without one, is not
     * reported. */
    EXPECT_EQ(0, subscribe(b, REG));
    oxnih_subscriber_leave(b);
    oxnih_subscriber_leave(c);
    EXPECT_EQ(-1, subscribe(c, REG));
    run(100);
    EXPECT_EQ("e1:a=delivered m2:a r2:on the way@a r2:after@a r2:delivered@a", notes());
    EXPECT_EQ(1U, oxnih_subscriber_references(b));
}

TEST_F(subscribers, references)
{
    uint64_t excess = oxnih_core_excess_deletes();
    oxni_subscriber *a = subscribed("a");

    oxni_subscriber_retain(a);
    oxni_subscriber_delete(a);
    EXPECT_EQ(1U, oxnih_subscriber_references(a));
    oxni_subscriber_delete(a);
    EXPECT_STREQ("ns", oxni_subscriber_get_attr(a)->ns); /* the platform holds a reference */
    EXPECT_EQ("", complaints());
    oxni_subscriber_delete(a);
    EXPECT_EQ(0U, complaints().find("oxni_subscriber_delete: no reference of subscriber ns/a "));
    /* A pending push holds a reference until its reply; then the handle is freed. */
    push(a, "x");
    oxnih_subscriber_leave(a);
    oxnih_subscriber_leave(a);
    run(0);
    EXPECT_EQ("m2:a r2:x@a", notes());
    EXPECT_EQ(nullptr, oxni_subscriber_get_attr(a));
    EXPECT_EQ(0U, complaints().find("oxni_subscriber_get_attr: "));
    oxni_subscriber_delete(a);
    EXPECT_EQ(0U, complaints().find("oxni_subscriber_delete: "));
    EXPECT_EQ(excess + 2, oxnih_core_excess_deletes());
}

TEST_F(subscribers, a_reset_drops_all_state_without_callbacks)
{
    json_t *message = json_of(MODIFY);
    oxni_subscriber *a = subscribed("a");

    oxnih_subscriber_set_reply_delay(a, UINT64_MAX);
    oxni_subscribee_pushback(a, message, nullptr, on_reply);
    oxni_subscriber_pushforward(a, message, nullptr, on_reply);
    oxnih_subscriber_leave(a);
    EXPECT_EQ(0, subscribe(make("b"), REG));
    oxnih_core_reset();
    run(100000);
    EXPECT_EQ("", notes());
    EXPECT_EQ(0U, oxnih_core_pending_replies());
    EXPECT_EQ(1U, message->refcount);
}
} // namespace
