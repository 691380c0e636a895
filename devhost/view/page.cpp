/* Pages: the template with the data in it. */
#include "view.h"

#include "../base/text.h"

/* Made from page.html by the build. */
extern const char page_html_text[];

static constexpr char DATA_MARK[] = "@DATA@";

std::string page_of(const std::string &json)
{
    const std::string page = page_html_text;
    const size_t mark = page.find(DATA_MARK);

    /* "</script>" in a text would end the page's script, and "<!--<script>" would hide its end. JSON has
     * this character only in texts. */
    return page.substr(0, mark) + text_replace(json, "<", "\\u003c") +
           page.substr(mark + sizeof(DATA_MARK) - 1);
}

void page_put_timeline(json_lines &writer, const std::vector<page_highlight> &highlights)
{
    json_list(writer, "decisions", highlights,
              [&](const page_highlight &highlight) { json_put(writer, highlight.index); });
    json_list(writer, "decision_texts", highlights,
              [&](const page_highlight &highlight) { json_put(writer, highlight.text); });
    json_list(writer, "timeline", journal_all(),
              [&](const happening &what) { view_put(writer, what); });
}

std::string page_of_run(const std::string &file, const std::string &name,
                        const std::vector<std::string> &summary,
                        const std::vector<std::string> &failures,
                        const std::vector<page_highlight> &highlights)
{
    return page_of(json_object_text<json_lines>([&](json_lines &writer) {
        json_members(writer, "title", file, "about", name, "summary", summary, "failures",
                     failures);
        page_put_timeline(writer, highlights);
    }));
}
