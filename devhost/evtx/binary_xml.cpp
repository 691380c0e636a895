/* Reads the classic fields and the strings of records. */
#include "binary_xml_internal.h"

#include <cstring>
#include <windows.h>

#include <algorithm>

static constexpr uint32_t DEFINITION_HEADER = 24u; /* next, GUID, size */
static constexpr uint32_t ITEM_COST = 16u;
/* Sound templates of a chunk do not overlap, and each is compiled for the record and for its data at
 * most. */
static constexpr uint32_t MAX_TEMPLATE_BYTES = 2 * 65536u;
/* The values of a chunk are in the chunk, and few are shown twice. */
static constexpr uint32_t MAX_WORK = 8 * 65536u;
static constexpr uint32_t MAX_STRINGS = 0xFFFFu; /* NumStrings of EVENTLOGRECORD has 16 bits */

void binary_xml::begin(const uint8_t *chunk, uint32_t size)
{
    chunk_ = chunk;
    size_ = size;
    template_budget_ = MAX_TEMPLATE_BYTES;
    work_budget_ = MAX_WORK;
    parts_.clear();
    items_.clear();
    programs_.clear();
    by_offset_.clear();
    values_.resize(MAX_DEPTH + 1);
}

/* The number of values, the size and type of each, then the values. */
bool binary_xml::read_values(cursor *in, std::vector<value> *values)
{
    const uint32_t count = in->get<uint32_t>(), descriptions = in->at;

    if (!in->skip(4ull * count))
        return false;
    values->resize(count);
    for (uint32_t i = 0; i < count; i++) {
        const uint8_t *description = chunk_ + descriptions + 4ull * i;

        (*values)[i] = {in->at, evtx_load<uint16_t>(description), description[2]};
        in->skip((*values)[i].size);
    }
    return in->sound;
}

/* A template is stored at its first use. In a torn chunk the offset may be that of a newer one,
 * whose identifier differs. */
bool binary_xml::read_instance(cursor *in, enum place where, program *found,
                               std::vector<value> *values)
{
    in->skip(2);
    const uint32_t identifier = in->get<uint32_t>(), at = in->get<uint32_t>();

    if (!in->sound || at < EVTX_CHUNK_HEADER_BYTES || at + uint64_t(DEFINITION_HEADER) > size_ ||
        evtx_load<uint32_t>(chunk_ + at + 4) != identifier)
        return false;
    const uint32_t size = evtx_load<uint32_t>(chunk_ + at + 20);
    if (at + uint64_t(DEFINITION_HEADER) + size > size_)
        return false;
    if (at == in->at)
        in->skip(uint64_t(DEFINITION_HEADER) + size);
    *found = *find_template(at + DEFINITION_HEADER, size, where);
    return found->sound && read_values(in, values);
}

/* A template's instance, or an element without a template, as forwarded events have. */
bool binary_xml::read_fragment(cursor in, enum place where, program *found,
                               std::vector<value> *values)
{
    values->clear();
    if (in.peek() == TOKEN_FRAGMENT)
        in.skip(4);
    if (in.peek() == TOKEN_INSTANCE)
        return read_instance(&in, where, found, values);
    if (!in.sound)
        return false;
    *found = compile(in.at, in.limit - in.at, false, where);
    return found->sound;
}

/* The value when a text is a value alone; NULL when it is something else. */
const binary_xml::value *binary_xml::only_value(const span &text,
                                                const std::vector<value> &values) const
{
    if (text.count != 1 || parts_[text.first].kind != part::VALUE ||
        parts_[text.first].count >= values.size())
        return nullptr;
    return &values[parts_[text.first].count];
}

static wchar_t entity_character(const std::string &name)
{
    static const struct {
        const char *name;
        wchar_t character;
    } entities[] = {
        {"lt",   L'<' },
        {"gt",   L'>' },
        {"amp",  L'&' },
        {"quot", L'"' },
        {"apos", L'\''}
    };

    for (const auto &entity : entities)
        if (name == entity.name)
            return entity.character;
    return L'?';
}

bool binary_xml::append(const span &text, const std::vector<value> &values, std::wstring *out) const
{
    for (uint32_t i = text.first; i < text.first + text.count; i++) {
        const part &one = parts_[i];
        std::wstring name;

        switch (one.kind) {
        case part::LITERAL: evtx_append_text(chunk_ + one.at, one.count, out); break;
        case part::ENTITY:
            evtx_append_text(chunk_ + one.at, one.count, &name);
            out->push_back(entity_character(std::string(name.begin(), name.end())));
            break;
        case part::VALUE:
            if (one.count >= values.size())
                return false;
            evtx_append_value(values[one.count].type, chunk_ + values[one.count].at,
                              values[one.count].size, out);
            break;
        }
    }
    return true;
}

bool binary_xml::number(const span &text, const std::vector<value> &values, uint32_t *number) const
{
    const value *one = only_value(text, values);
    std::wstring digits;

    *number = 0;
    if (one != nullptr && one->type >= EVTX_INT8 && one->type <= EVTX_UINT64) {
        memcpy(number, chunk_ + one->at, std::min<size_t>(one->size, sizeof(*number)));
        return true;
    }
    if (!append(text, values, &digits) ||
        digits.find_first_not_of(L"0123456789") != std::wstring::npos)
        return false;
    *number = static_cast<uint32_t>(wcstoul(digits.c_str(), nullptr, 10));
    return true;
}

/* What it costs to show a text: its bytes. */
uint32_t binary_xml::cost(const span &text, const std::vector<value> &values) const
{
    uint32_t bytes = ITEM_COST;

    for (uint32_t i = text.first; i < text.first + text.count; i++) {
        const part &one = parts_[i];

        if (one.kind != part::VALUE)
            bytes += one.count;
        else if (one.count < values.size())
            bytes += values[one.count].size;
    }
    return bytes;
}

/* Result: false when the item cannot be read, or when the chunk shows its values over and over. */
bool binary_xml::add_item(const item &one, const std::vector<value> &values, int depth,
                          event_strings *strings)
{
    const value *only = only_value(one.text, values);
    const uint32_t work = cost(one.text, values);
    std::wstring text;

    if (one.binary || (one.dependency < values.size() && values[one.dependency].type == EVTX_NULL))
        return true;
    if (work > work_budget_ || strings->count() >= MAX_STRINGS)
        return false;
    work_budget_ -= work;
    if (only != nullptr && only->type == EVTX_XML) {
        program found;

        if (only->size == 0)
            return true;
        return depth > 0 &&
               read_fragment(cursor(chunk_, only->at, only->at + only->size), IN_EVENT, &found,
                             &values_[static_cast<size_t>(depth - 1)]) &&
               add_items(found, values_[static_cast<size_t>(depth - 1)], depth - 1, strings);
    }
    if (only != nullptr && (only->type & EVTX_ARRAY) != 0) {
        if (strings->count() + only->size >= MAX_STRINGS)
            return false;
        evtx_add_array(only->type & (EVTX_ARRAY - 1), chunk_ + only->at, only->size, strings);
        return true;
    }
    if (!append(one.text, values, &text))
        return false;
    strings->add(text);
    return true;
}

bool binary_xml::add_items(const program &found, const std::vector<value> &values, int depth,
                           event_strings *strings)
{
    for (uint32_t i = found.first; i < found.first + found.count; i++) {
        const item one = items_[i]; /* a copy: nested XML adds items */

        if (!add_item(one, values, depth, strings))
            return false;
    }
    return true;
}

static uint16_t type_of(uint32_t level)
{
    switch (level) {
    case 1: /* critical */
    case 2: return EVENTLOG_ERROR_TYPE;
    case 3: return EVENTLOG_WARNING_TYPE;
    default: return EVENTLOG_INFORMATION_TYPE;
    }
}

enum xml_result binary_xml::read(uint32_t at, uint32_t end, const event_filter *filter,
                                 event_record *event)
{
    std::vector<value> &values = values_[MAX_DEPTH];
    uint32_t qualifiers = 0, level = 0, id = 0;
    program found;

    if (!read_fragment(cursor(chunk_, at, end), IN_DOCUMENT, &found, &values) ||
        !found.fields[FIELD_ID].present || !number(found.fields[FIELD_ID], values, &id))
        return XML_BAD;
    if (filter != nullptr && !filter->wants_id(id))
        return XML_UNWANTED;
    const span &source =
        found.fields[found.fields[FIELD_SOURCE].present ? FIELD_SOURCE : FIELD_PROVIDER];
    event->source.clear();
    if (!append(source, values, &event->source))
        return XML_BAD;
    event->id = id & 0xFFFF;
    if (filter != nullptr && !filter->wants(*event))
        return XML_UNWANTED;
    if (!number(found.fields[FIELD_QUALIFIERS], values, &qualifiers) ||
        !number(found.fields[FIELD_LEVEL], values, &level))
        return XML_BAD;
    event->id |= qualifiers << 16;
    event->type = type_of(level);
    event->strings = event_strings();
    return add_items(found, values, MAX_DEPTH, &event->strings) ? XML_READ : XML_BAD;
}
