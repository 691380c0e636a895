/* JSON values as text of the host's allocator. Stateless; any thread of the host. */
#include "json_text.h"

char *json_text_dump(const json_t *json)
{
    return json != NULL ? json_dumps(json, 0) : NULL;
}

void json_text_free(char *text)
{
    json_free_t free_text = NULL;

    if (text == NULL)
        return;
    json_get_alloc_funcs(NULL, &free_text); /* the host chooses the allocator */
    free_text(text);
}
