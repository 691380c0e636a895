/* A System log of the test's own behind the event-log calls of Windows. */
#ifndef FAKE_EVENT_LOG_H
#define FAKE_EVENT_LOG_H

#include <string>
#include <vector>

#include <stdint.h>

#include "import_patch.h"

/* The bytes of one record, laid out as Windows does. */
std::vector<uint8_t> event_record(uint32_t event_id, const std::wstring &source, uint32_t seconds,
                                  const std::vector<std::wstring> &strings = {});

class fake_event_log
{
  public:
    fake_event_log();
    ~fake_event_log();

    /* Newest first. */
    std::vector<std::vector<uint8_t>> records;
    bool open_fails = false;
    /* The read with this number (from 1) fails with read_error; 0: none. */
    unsigned failing_read = 0;
    uint32_t read_error = 5;

    unsigned opens = 0, closes = 0;
    std::vector<uint32_t> read_sizes; /* buffer sizes, one a read */

  private:
    /* Plain functions of Windows reach the one log that lives. */
    static void *__stdcall open(const wchar_t *server, const wchar_t *name);
    static int __stdcall read(void *log, unsigned long flags, unsigned long offset, void *buffer,
                              unsigned long size, unsigned long *filled, unsigned long *needed);
    static int __stdcall close(void *log);

    size_t next_ = 0;
    import_patch open_patch_, read_patch_, close_patch_;
};

#endif
