/* Compiles the elements of a template, or of a record without one, into what a record needs. */
#include "binary_xml_internal.h"

static constexpr uint32_t NO_DEPENDENCY = 0xFFFFu;

bool binary_xml::xml_name::is(const char *text) const
{
    for (uint32_t i = 0; i < count; i++)
        if (text[i] == '\0' ||
            evtx_load<uint16_t>(units + 2ull * i) != static_cast<unsigned char>(text[i]))
            return false;
    return text[count] == '\0';
}

/* A name is stored where it is first used, directly after its offset. */
bool binary_xml::read_name(cursor *in, xml_name *read)
{
    const uint32_t at = in->get<uint32_t>();

    if (!in->sound || at < EVTX_CHUNK_HEADER_BYTES || at + 8ull > size_)
        return in->sound = false;
    read->count = evtx_load<uint16_t>(chunk_ + at + 6); /* after next and hash */
    read->units = chunk_ + at + 8;
    if (at + 8ull + 2ull * read->count > size_)
        return in->sound = false;
    return at != in->at || in->skip(10ull + 2ull * read->count);
}

/* Result: false for a token that is no text. */
bool binary_xml::read_part(cursor *in, part *read)
{
    xml_name entity;

    switch (in->peek_kind()) {
    case TOKEN_SUBSTITUTION:
    case TOKEN_OPTIONAL_SUBSTITUTION:
        in->skip(1);
        *read = {part::VALUE, 0, in->get<uint16_t>()};
        in->skip(1); /* the type; the value has its own */
        return true;
    case TOKEN_TEXT:
    case TOKEN_CDATA:
        in->skip(in->peek_kind() == TOKEN_TEXT ? 2 : 1);
        *read = {part::LITERAL, 0, in->get<uint16_t>()};
        read->at = in->at;
        return in->skip(2ull * read->count);
    case TOKEN_CHARACTER: /* the character's number is its text */
        in->skip(1);
        *read = {part::LITERAL, in->at, 1};
        return in->skip(2);
    case TOKEN_ENTITY:
        in->skip(1);
        if (!read_name(in, &entity))
            return false;
        *read = {part::ENTITY, static_cast<uint32_t>(entity.units - chunk_),
                 static_cast<uint16_t>(entity.count)};
        return true;
    default: return false;
    }
}

/* Text and substitutions, up to something else. */
bool binary_xml::read_text(cursor *in, span *text)
{
    part read = {part::LITERAL, 0, 0};

    *text = {static_cast<uint32_t>(parts_.size()), 0, true};
    while (in->sound && read_part(in, &read) && in->sound) {
        parts_.push_back(read);
        text->count++;
    }
    return in->sound;
}

enum binary_xml::field binary_xml::field_of(const xml_name &name, bool of_provider)
{
    if (name.is("Qualifiers"))
        return FIELD_QUALIFIERS;
    if (of_provider && name.is("Name"))
        return FIELD_PROVIDER;
    return name.is("EventSourceName") ? FIELD_SOURCE : FIELD_COUNT;
}

void binary_xml::read_attributes(cursor *in, enum place where, bool of_provider, program *made)
{
    cursor list = *in;
    const uint32_t bytes = list.get<uint32_t>();

    in->skip(4ull + bytes);
    list.limit = in->at;
    while (in->sound && list.sound && list.at < list.limit) {
        xml_name attribute;
        span text = {};

        if ((list.get<uint8_t>() & ~TOKEN_MORE) != TOKEN_ATTRIBUTE ||
            !read_name(&list, &attribute) || !read_text(&list, &text))
            break;
        const enum field target =
            where == IN_SYSTEM ? field_of(attribute, of_provider) : FIELD_COUNT;
        if (target != FIELD_COUNT)
            made->fields[target] = text;
        else if (where == IN_OTHER_DATA && text.count == 1 &&
                 parts_[text.first].kind == part::VALUE)
            items_.push_back({text, NO_DEPENDENCY, false});
    }
    in->sound = in->sound && list.sound && list.at == list.limit;
}

enum binary_xml::place binary_xml::place_below(enum place where, const xml_name &name)
{
    if (where == IN_DOCUMENT)
        return name.is("Event") ? IN_EVENT : IN_DOCUMENT;
    if (where != IN_EVENT)
        return where;
    if (name.is("System"))
        return IN_SYSTEM;
    return name.is("EventData") ? IN_EVENT_DATA : IN_OTHER_DATA;
}

/* What is between the start tag and the end tag; returns the last text. */
binary_xml::span binary_xml::read_content(cursor *in, enum place where, bool in_template, int depth,
                                          program *made, bool *children)
{
    span last = {};

    while (in->sound && in->peek() != TOKEN_END) {
        const uint32_t before = in->at;
        span text = {};

        if (in->peek_kind() == TOKEN_ELEMENT) {
            *children = true;
            read_element(in, where, in_template, depth - 1, made);
        } else if (!read_text(in, &text) || in->at == before) {
            in->sound = false;
        } else {
            last = text;
        }
    }
    in->skip(1);
    return last;
}

/* Files what an element contains under its field, or among the strings. */
void binary_xml::take_element(enum place where, const xml_name &name, const item &read,
                              bool children, program *made)
{
    if (where == IN_SYSTEM) {
        if (name.is("EventID"))
            made->fields[FIELD_ID] = read.text;
        else if (name.is("Level"))
            made->fields[FIELD_LEVEL] = read.text;
        return;
    }
    const bool is_string = where == IN_EVENT_DATA
                               ? !children
                               : read.text.present && (where != IN_OTHER_DATA || !children);
    if (is_string) {
        items_.push_back(read);
        items_.back().binary = where == IN_EVENT_DATA && name.is("Binary");
    }
}

void binary_xml::read_element(cursor *in, enum place where, bool in_template, int depth,
                              program *made)
{
    const uint8_t token = in->get<uint8_t>();
    item read = {{}, NO_DEPENDENCY, false};
    xml_name element;
    bool children = false;

    if (in_template)
        read.dependency = in->get<uint16_t>();
    const uint32_t size = in->get<uint32_t>();
    cursor inside = *in;
    in->skip(size);
    inside.limit = in->at;
    if (!in->sound || depth == 0 || (token & ~TOKEN_MORE) != TOKEN_ELEMENT ||
        !read_name(&inside, &element)) {
        in->sound = false;
        return;
    }
    const enum place below = place_below(where, element);
    if ((token & TOKEN_MORE) != 0)
        read_attributes(&inside, below == IN_OTHER_DATA ? IN_OTHER_DATA : where,
                        element.is("Provider"), made);
    const uint8_t close = inside.get<uint8_t>();
    if (close == TOKEN_END_OF_START)
        read.text = read_content(&inside, below, in_template, depth, made, &children);
    in->sound = inside.sound && inside.at == inside.limit &&
                (close == TOKEN_END_OF_START || close == TOKEN_END_OF_EMPTY);
    take_element(where, element, read, children, made);
}

binary_xml::program binary_xml::compile(uint32_t at, uint32_t size, bool in_template,
                                        enum place where)
{
    cursor in(chunk_, at, at + size);
    program made = {};

    made.first = static_cast<uint32_t>(items_.size());
    if (size > template_budget_)
        return made;
    template_budget_ -= size;
    if (in.peek() == TOKEN_FRAGMENT)
        in.skip(4);
    read_element(&in, where, in_template, MAX_DEPTH, &made);
    made.count = static_cast<uint32_t>(items_.size()) - made.first;
    made.sound = in.sound;
    return made;
}

/* The program of a template's content at an offset. */
const binary_xml::program *binary_xml::find_template(uint32_t at, uint32_t size, enum place where)
{
    const uint32_t key = at << 1 | (where != IN_DOCUMENT ? 1 : 0);

    for (size_t i = 0; i < by_offset_.size(); i++)
        if (by_offset_[i].first == key) {
            if (i > 0)
                std::swap(by_offset_[i], by_offset_[i - 1]);
            return &programs_[by_offset_[i > 0 ? i - 1 : i].second];
        }
    programs_.push_back(compile(at, size, true, where));
    by_offset_.push_back({key, static_cast<uint32_t>(programs_.size() - 1)});
    return &programs_.back();
}
