/* Pages: the template with the data in it. */
#include "page.h"

#include "../scenario/journal.h"
#include "../base/text.h"
#include "view.h"

/* Made from page.html by the build. */
extern const char page_html_text[];

#define DATA_MARK "@DATA@"

static std::string page_of(const std::string &json)
{
    const std::string page = page_html_text;
    const size_t mark = page.find(DATA_MARK);

    /* Inside a script the page would end at "</script>", and never after "<!--<script>", whatever
     * stands around them; all that JSON has of this character is in texts. */
    return page.substr(0, mark) + text_replace(json, "<", "\\u003c") +
           page.substr(mark + sizeof(DATA_MARK) - 1);
}

std::string page_of_replay(const std::string &json)
{
    return page_of(json);
}

static std::string texts(const std::vector<std::string> &values)
{
    std::string text;

    for (const std::string &value : values)
        text += (text.empty() ? "" : ", ") + text_quoted(value);
    return "[" + text + "]";
}

std::string page_of_run(const std::string &file, const std::string &name,
                        const std::vector<std::string> &summary,
                        const std::vector<std::string> &failures,
                        const std::vector<size_t> &highlighted)
{
    std::string timeline, decisions;

    for (const happening &what : journal_all())
        timeline += (timeline.empty() ? "" : ",\n") + view_json(what);
    for (const size_t index : highlighted)
        decisions += (decisions.empty() ? "" : ", ") + std::to_string(index);
    return page_of("{\"title\": " + text_quoted(file) + ", \"about\": " + text_quoted(name) +
                   ", \"summary\": " + texts(summary) + ", \"failures\": " + texts(failures) +
                   ", \"decisions\": [" + decisions + "],\n\"timeline\": [" + timeline + "]}");
}
