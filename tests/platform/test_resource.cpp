#include "platform_test.h"

#include <oxni/base/debug_console.h>
#include <oxni/base/resource.h>

namespace
{
class resources : public platform_test
{
  protected:
    static void on_state(const char *path, int32_t state)
    {
        note(path + std::string("=") + std::to_string(state));
    }
    static void on_reply(oxnir_rsp *response, void *)
    {
        json_t *answer = oxnir_rsp_get_resp(response);
        note("r" + std::to_string(oxnir_rsp_get_errno(response)) + ":" +
             (answer == nullptr ? "null" : json_string_value(answer)));
    }
    static void on_request(oxnih_request *asked, json_t *message, void *)
    {
        note(std::string("q:") + json_string_value(message));
        s_asked = asked;
    }
    /* Keeps a reference to the message, so that the test can check the platform's references. */
    static int request(const char *path, json_t *message)
    {
        return oxni_res_deliver(path, json_incref(message), nullptr, on_reply, 0);
    }

    static inline oxnih_request *s_asked;
};

TEST_F(resources, the_state_is_delivered_once_and_at_each_change)
{
    EXPECT_EQ(0, oxni_res_require("/l", 0, on_state));
    oxnih_res_set_state("/l", 1);
    oxnih_res_set_state("/l", 1);
    EXPECT_EQ("", notes());
    run(0);
    EXPECT_EQ("/l=0 /l=1", notes());
    oxnih_core_reset(); /* drops the watches and keeps the state */
    oxnih_res_set_state("/l", 3);
    oxni_res_require("/l", 0, on_state);
    run(0);
    EXPECT_EQ("/l=3", notes());
}

TEST_F(resources, requests_are_answered_once_and_released)
{
    json_t *message = json_of("\"m\"");

    EXPECT_EQ(-1, request(nullptr, message));
    EXPECT_EQ(0, request("/none", message));
    EXPECT_EQ("", notes());
    run(0);
    EXPECT_EQ("r2:null", notes());
    oxnih_res_set_handler("/r", on_request, nullptr);
    request("/r", message);
    run(1000);
    oxnih_res_answer(s_asked, 9, message, 5);
    oxnih_res_answer(s_asked, 0, nullptr, 0);
    EXPECT_EQ(0U, complaints().find("oxnih_res_answer: request "));
    run(4);
    EXPECT_EQ("q:m", notes());
    run(1);
    EXPECT_EQ("r9:m", notes());
    EXPECT_EQ(1U, message->refcount);
    request("/r", message);
    run(0);
    EXPECT_EQ(2U, message->refcount); /* until the answer, or the end of the agent's process */
    oxnih_core_reset();
    EXPECT_EQ(1U, message->refcount);
}

TEST_F(resources, a_command_echoes_only_while_it_runs)
{
    static oxni_dbg_context *s_context;
    oxni_dbg_fn fn = [](int32_t argc, char **argv, oxni_dbg_context *context) {
        EXPECT_EQ(nullptr, argv[argc]);
        s_context = context;
    };

    EXPECT_EQ(0, oxni_dbg_decl("oxni", "bypass", "what it does", fn));
    oxnih_dbg_run("oxni", "bypass");
    run(0);
    oxni_dbg_echo(s_context, 0, "too late");
    EXPECT_EQ("oxni_dbg_echo: no command runs with that context", complaints());
}
} // namespace
