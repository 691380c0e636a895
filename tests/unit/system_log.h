/* The System log as tests arrange it. */
#ifndef SYSTEM_LOG_H
#define SYSTEM_LOG_H

#include <string>
#include <vector>

#include <cstdint>

#include "import_patch.h"

typedef std::vector<uint8_t> block;

/* UTF-16 as the registry stores it, without a terminator. */
std::string wide_bytes(const std::wstring &text);

/* The bytes of one log record, laid out as Windows does, of the moment 2024-03-07 09:05:41 UTC. */
block event_record(uint32_t event_id, const std::wstring &source,
                   const std::vector<std::wstring> &strings = {});

/* While it lives, the System log holds these bytes, returned in one read when they fit. */
class system_log
{
  public:
    explicit system_log(const block &bytes);
    /* The same bytes, or others, again. */
    static void fill(const block &bytes);
    /* Logs that were not closed, of all objects. */
    static int logs_open;
    /* Whether a read throws std::runtime_error("read"). */
    static bool read_throws;

  private:
    import_patch open_, read_, close_;
};

#endif
