#include "platform_test.h"

#include <oxni/base/debug_console.h>
#include <oxni/base/resource.h>
#include <oxni/base/time.h>

namespace
{
class resources : public platform_test
{
  protected:
    static void on_state(const char *path, int32_t state)
    {
        note(path + std::string("=") + std::to_string(state));
    }
    static void on_reply(oxnir_rsp *response, void *user)
    {
        json_t *answer = oxnir_rsp_get_resp(response);
        note(static_cast<const char *>(user) + std::to_string(oxnir_rsp_get_errno(response)) + ":" +
             (answer == NULL ? "null" : json_string_value(answer)));
    }
    static void on_echo(int32_t error, const char *echo)
    {
        note("x" + std::to_string(error) + ":" + (echo == NULL ? "null" : echo));
    }
    static void request(const char *path, const char *name)
    {
        EXPECT_EQ(0,
                  oxni_res_deliver(path, json_string(name), const_cast<char *>(name), on_reply, 0));
    }
    static void on_request(oxnih_request *asked, json_t *message, void *)
    {
        note(std::string("q:") + json_string_value(message));
        s_asked = asked;
    }
    static void on_call(oxnih_request *asked, const char *line, void *)
    {
        note(std::string("c:") + line);
        s_asked = asked;
    }
    void TearDown() override
    {
        oxnih_res_set_handler("/r", NULL, NULL);
        oxnih_dbg_set_handler("mgmt", NULL, NULL);
        oxnih_res_set_state("/l", 0);
        platform_test::TearDown();
    }
    static void run(uint64_t ms)
    {
        EXPECT_EQ(0, oxnih_core_run_until(oxni_time_get_tick_cout() + ms));
    }

    static oxnih_request *s_asked;
};

oxnih_request *resources::s_asked;

TEST_F(resources, the_state_is_told_once_and_at_each_change)
{
    EXPECT_EQ(0, oxni_res_require("/l", 0, on_state));
    oxnih_res_set_state("/l", 1);
    EXPECT_EQ("", notes());
    run(0);
    EXPECT_EQ("/l=0 /l=1", notes());
    oxnih_res_set_state("/l", 1);
    oxnih_res_set_state("/other", 1);
    run(0);
    EXPECT_EQ("", notes());
    EXPECT_EQ(0, oxni_res_require("/l", 0, on_state));
    oxnih_res_set_state("/l", 2);
    run(0);
    EXPECT_EQ("/l=1 /l=2 /l=2", notes());
    oxnih_core_reset(); /* the watches are the agent's, the state is the link's */
    oxnih_res_set_state("/l", 3);
    oxni_res_require("/l", 0, on_state);
    run(0);
    EXPECT_EQ("/l=3", notes());
    EXPECT_EQ(-1, oxni_res_require(NULL, 0, on_state));
    EXPECT_EQ(-1, oxni_res_require("/l", 0, NULL));
}

TEST_F(resources, requests_are_answered_once)
{
    request("/none", "a");
    run(0);
    EXPECT_EQ("a2:null", notes());
    oxnih_res_set_handler("/r", on_request, NULL);
    request("/r", "b");
    EXPECT_EQ("", notes());
    run(1000);
    EXPECT_EQ("q:b", notes()); /* as long as nobody answers */
    oxnih_res_answer(s_asked, 0, json_of("\"yes\""), 5);
    run(4);
    EXPECT_EQ("", notes());
    run(1);
    EXPECT_EQ("b0:yes", notes());
    oxnih_res_answer(s_asked, 0, NULL, 0);
    oxnih_dbg_answer(s_asked, 0, NULL, 0);
    run(0);
    EXPECT_EQ("", notes());
    std::string said = complaints();
    EXPECT_NE(std::string::npos, said.find("oxnih_res_answer: request ")) << said;
    EXPECT_NE(std::string::npos, said.find("\noxnih_dbg_answer: call ")) << said;
    request("/r", "c");
    run(0);
    oxnih_res_answer(s_asked, 9, NULL, 0);
    run(0);
    EXPECT_EQ("q:c c9:null", notes());
}

TEST_F(resources, a_request_is_released_whatever_happens)
{
    json_t *message = json_string("x");

    json_incref(message);
    EXPECT_EQ(-1, oxni_res_deliver(NULL, message, NULL, on_reply, 0));
    EXPECT_EQ(1U, message->refcount);
    EXPECT_EQ(-1, oxni_res_deliver("/r", NULL, NULL, on_reply, 0));
    json_incref(message);
    EXPECT_EQ(0, oxni_res_deliver("/none", message, const_cast<char *>("u"), on_reply, 0));
    run(0);
    EXPECT_EQ(1U, message->refcount);
    oxnih_res_set_handler("/r", on_request, NULL);
    json_incref(message);
    EXPECT_EQ(0, oxni_res_deliver("/r", message, const_cast<char *>("u"), on_reply, 0));
    run(0);
    EXPECT_EQ(2U, message->refcount); /* until the answer, or the agent's end */
    oxnih_core_reset();
    EXPECT_EQ(1U, message->refcount);
    json_decref(message);
}

TEST_F(resources, console_commands)
{
    const struct {
        const char *line;
        const char *happened;
    } rows[] = {
        {"bypass",              "1[bypass]"                          },
        {"bypass -r",           "2[bypass][-r]"                      },
        {"  bypass \t -p   x ", "3[bypass][-p][x]"                   },
        {"unknown -r",          "refused:no such command: unknown -r"},
        {"",                    "refused:no such command: "          }
    };
    static oxni_dbg_context *s_context;
    oxni_dbg_fn fn = [](int32_t argc, char **argv, oxni_dbg_context *context) {
        std::string text = std::to_string(argc + (argv[argc] == NULL ? 0 : 100));
        for (int32_t i = 0; i < argc; i++)
            text += "[" + std::string(argv[i]) + "]";
        s_context = context;
        oxni_dbg_echo(context, 0, text.c_str());
    };

    oxnih_core_set_observer(
        [](const oxnih_event *event, void *) {
            if (event->kind == OXNIH_EVENT_ECHO)
                note(event->text);
            if (event->kind == OXNIH_EVENT_REFUSED)
                note(std::string("refused:") + event->text);
        },
        NULL);
    EXPECT_EQ(0, oxni_dbg_decl("oxni", "bypass", "what it does", fn));
    EXPECT_EQ(-1, oxni_dbg_decl("oxni", "bypass", "again", fn));
    EXPECT_EQ(0, oxni_dbg_decl("other", "bypass", "another", fn));
    EXPECT_EQ(-1, oxni_dbg_decl("oxni", "x", "h", NULL));
    EXPECT_STREQ("what it does", oxnih_dbg_help("oxni", "bypass"));
    EXPECT_EQ(nullptr, oxnih_dbg_help("oxni", "none"));
    for (const auto &row : rows) {
        oxnih_dbg_run("oxni", row.line);
        EXPECT_EQ("", notes());
        run(0);
        EXPECT_EQ(row.happened, notes()) << row.line;
    }
    oxni_dbg_echo(s_context, 0, "too late");
    EXPECT_EQ("oxni_dbg_echo: no command runs with that context", complaints());
    EXPECT_EQ("", notes());
}

TEST_F(resources, calls_of_other_modules)
{
    EXPECT_EQ(-1, oxni_dbg_exec("mgmt", NULL, 0, on_echo));
    EXPECT_EQ(-1, oxni_dbg_exec("mgmt", "info", 0, NULL));
    EXPECT_EQ(0, oxni_dbg_exec("mgmt", "info", 0, on_echo));
    EXPECT_EQ("", notes());
    run(0);
    EXPECT_EQ("x2:null", notes());
    oxnih_dbg_set_handler("mgmt", on_call, NULL);
    oxni_dbg_exec("mgmt", "quality info", 0, on_echo);
    run(100);
    EXPECT_EQ("c:quality info", notes());
    oxnih_dbg_answer(s_asked, 0, "text", 10);
    run(9);
    EXPECT_EQ("", notes());
    run(1);
    EXPECT_EQ("x0:text", notes());
    oxni_dbg_exec("mgmt", "again", 0, on_echo);
    run(0);
    oxnih_dbg_answer(s_asked, 0, NULL, 0);
    run(0);
    EXPECT_EQ("c:again x0:null", notes());
}
} // namespace
