/*
 * The binary XML of the records in one chunk of an .evtx file. A record is an instance of a template
 * with values; a template is compiled once a chunk, so that a record costs little more than its
 * values. Nothing in a chunk is trusted: every offset, count and size is checked, and nesting, the
 * bytes of all templates and the work for all values of a chunk are bounded.
 */
#ifndef DEVHOST_BINARY_XML_H
#define DEVHOST_BINARY_XML_H

#include <cstdint>

#include <string>
#include <utility>
#include <vector>

#include "../base/event_record.h"

enum xml_result {
    XML_READ,
    XML_UNWANTED,
    XML_BAD /* the record cannot be read */
};

class binary_xml
{
  public:
    /* Forgets the previous chunk. chunk: size bytes, at most 64 KiB; borrowed until the next call. */
    void begin(const uint8_t *chunk, uint32_t size);

    /*
     * Reads the record whose XML is at the offsets from at to end, exclusive.
     *
     * filter   NULL: every record is wanted.
     * event    Source, id, type and strings are set for XML_READ.
     */
    enum xml_result read(uint32_t at, uint32_t end, const event_filter *filter,
                         event_record *event);

  private:
    enum field {
        FIELD_PROVIDER,
        FIELD_SOURCE,
        FIELD_ID,
        FIELD_QUALIFIERS,
        FIELD_LEVEL,
        FIELD_COUNT
    };
    /* Where in an event an element is. */
    enum place {
        IN_DOCUMENT,
        IN_EVENT,
        IN_SYSTEM,
        IN_EVENT_DATA,
        IN_OTHER_DATA
    };

    /* Literal text at an offset with a number of UTF-16 units; an entity's name likewise; a value by
     * its index. */
    struct part {
        enum {
            LITERAL,
            ENTITY,
            VALUE
        } kind;
        uint32_t at;
        uint16_t count; /* units, or the index of the value */
    };
    /* Consecutive parts: one text. */
    struct span {
        uint32_t first, count;
        bool present;
    };
    /* An element or attribute of the event's data: one string, or whatever its value contains. */
    struct item {
        span text;
        uint16_t dependency; /* value whose NULL type removes the element */
        bool binary;         /* the record's data, which is no string */
    };
    struct program {
        span fields[FIELD_COUNT];
        uint32_t first, count; /* items */
        bool sound;
    };
    struct value {
        uint32_t at;
        uint16_t size;
        uint8_t type;
    };
    /* The name of an element, attribute or entity. */
    struct xml_name {
        const uint8_t *units = nullptr;
        uint32_t count = 0;

        bool is(const char *text) const;
    };
    struct cursor;

    bool read_name(cursor *in, xml_name *read);
    bool read_part(cursor *in, part *read);
    bool read_text(cursor *in, span *text);
    static enum field field_of(const xml_name &name, bool of_provider);
    static enum place place_below(enum place where, const xml_name &name);
    void read_attributes(cursor *in, enum place where, bool of_provider, program *made);
    void read_element(cursor *in, enum place where, bool in_template, int depth, program *made);
    span read_content(cursor *in, enum place where, bool in_template, int depth, program *made,
                      bool *children);
    void take_element(enum place where, const xml_name &name, const item &read, bool children,
                      program *made);
    program compile(uint32_t at, uint32_t size, bool in_template, enum place where);
    const program *find_template(uint32_t at, uint32_t size, enum place where);
    bool read_values(cursor *in, std::vector<value> *values);
    bool read_instance(cursor *in, enum place where, program *found, std::vector<value> *values);
    bool read_fragment(cursor in, enum place where, program *found, std::vector<value> *values);

    const value *only_value(const span &text, const std::vector<value> &values) const;
    bool append(const span &text, const std::vector<value> &values, std::wstring *out) const;
    bool number(const span &text, const std::vector<value> &values, uint32_t *number) const;
    uint32_t cost(const span &text, const std::vector<value> &values) const;
    bool add_item(const item &one, const std::vector<value> &values, int depth,
                  event_strings *strings);
    bool add_items(const program &found, const std::vector<value> &values, int depth,
                   event_strings *strings);

    const uint8_t *chunk_ = nullptr;
    uint32_t size_ = 0;
    uint32_t template_budget_ = 0, work_budget_ = 0; /* what is left for this chunk */
    std::vector<part> parts_;
    std::vector<item> items_;
    std::vector<program> programs_;
    /* Offset of a template, and whether it is an event's data; index of its program. The most used
     * ones come first. */
    std::vector<std::pair<uint32_t, uint32_t>> by_offset_;
    std::vector<std::vector<value>> values_; /* by depth */
};

#endif
