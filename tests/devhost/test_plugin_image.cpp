#include "agent/plugin_image.h"

#include <cstring>

#include <gtest/gtest.h>

#include "calls/imports.h"

namespace
{
constexpr DWORD REDIRECTED_TICK = 7;
int s_redirects, s_ends;

DWORD WINAPI redirected_tick(void)
{
    return REDIRECTED_TICK;
}

void WINAPI note_end(DWORD)
{
    s_ends++;
}

void redirect(HMODULE module)
{
    s_redirects++;
    imports_each(module, [](const std::string &, const char *name, void **entry) {
        if (strcmp(name, "GetTickCount") == 0)
            imports_redirect(entry, reinterpret_cast<void *>(redirected_tick));
        if (strcmp(name, "Sleep") == 0)
            imports_redirect(entry, reinterpret_cast<void *>(note_end));
    });
}

template <typename Result> Result (*probe(HMODULE module, const char *name))(void)
{
    return reinterpret_cast<Result (*)(void)>(
        reinterpret_cast<void *>(GetProcAddress(module, name)));
}

bool can_run(const void *code)
{
    MEMORY_BASIC_INFORMATION page;

    return VirtualQuery(code, &page, sizeof(page)) != 0 && page.State == MEM_COMMIT &&
           (page.Protect & PAGE_EXECUTE_READ) != 0;
}

/* Equal starts, whether or not the module stays mapped. */
TEST(plugin_image, each_start_is_the_first)
{
    for (bool mapped : {false, true}) {
        s_redirects = s_ends = 0;
        image_keep_mapped(mapped);
        for (int start = 1; start <= 3; start++) {
            HMODULE module = image_start(L"image_probe.dll", redirect);
            ASSERT_TRUE(module != nullptr) << GetLastError();
            auto count = probe<int>(module, "probe_count");

            EXPECT_EQ(1, count()) << mapped << start;
            EXPECT_EQ(2, count()) << mapped << start;
            EXPECT_EQ(REDIRECTED_TICK, probe<DWORD>(module, "probe_tick")()) << mapped << start;
            EXPECT_NE(REDIRECTED_TICK, probe<DWORD>(module, "probe_tick_of_entry_point")())
                << mapped << start;
            EXPECT_EQ(start - 1, s_ends) << mapped;
            image_end();
            EXPECT_EQ(start, s_ends) << mapped;
            EXPECT_FALSE(can_run(reinterpret_cast<const void *>(count))) << mapped << start;
        }
        EXPECT_EQ(mapped ? 1 : 3, s_redirects);
    }
    image_keep_mapped(false);
    EXPECT_TRUE(GetModuleHandleW(L"image_probe.dll") == nullptr);
}

TEST(plugin_image, a_missing_file_is_reported)
{
    image_keep_mapped(true);
    EXPECT_TRUE(image_start(L"no_such.dll", redirect) == nullptr);
    EXPECT_EQ(static_cast<DWORD>(ERROR_MOD_NOT_FOUND), GetLastError());
    image_keep_mapped(false);
}
} // namespace
