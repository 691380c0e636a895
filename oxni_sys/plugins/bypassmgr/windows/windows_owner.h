/*
 * Owners of objects that Windows, the host or the C runtime opened. Each closes its object at the
 * end of its scope, also when an exception passes: a failed allocation is one.
 */
#ifndef WINDOWS_OWNER_H
#define WINDOWS_OWNER_H

#include <stdint.h>
#include <stdio.h>
#include <windows.h>

#include <oxni/base/memory.h>

/* Invalid is the value that stands for no object: Windows uses NULL for some kinds and
 * INVALID_HANDLE_VALUE for others. */
template <typename Type, void (*Close)(Type), intptr_t Invalid = 0> class windows_owner
{
  public:
    /* value is stolen. */
    explicit windows_owner(Type value = (Type)Invalid) : value_(value)
    {
    }

    ~windows_owner()
    {
        if (is_valid())
            Close(value_);
    }

    windows_owner(const windows_owner &) = delete;
    windows_owner &operator=(const windows_owner &) = delete;

    bool is_valid() const
    {
        return value_ != (Type)Invalid;
    }

    /* Borrowed. */
    Type get() const
    {
        return value_;
    }

    /* Closes the object and owns value instead. */
    void reset(Type value = (Type)Invalid)
    {
        if (is_valid())
            Close(value_);
        value_ = value;
    }

    /* Gives the object up without closing it. */
    Type release()
    {
        const Type value = value_;

        value_ = (Type)Invalid;
        return value;
    }

  private:
    Type value_;
};

#define INVALID_HANDLE ((intptr_t)-1) /* INVALID_HANDLE_VALUE as a number */

inline void owner_close_handle(HANDLE handle)
{
    (void)CloseHandle(handle);
}

inline void owner_close_find(HANDLE find)
{
    (void)FindClose(find);
}

inline void owner_close_key(HKEY key)
{
    (void)RegCloseKey(key);
}

inline void owner_close_event_log(HANDLE log)
{
    (void)CloseEventLog(log);
}

inline void owner_close_service(SC_HANDLE service)
{
    (void)CloseServiceHandle(service);
}

inline void owner_close_stream(FILE *stream)
{
    (void)fclose(stream);
}

inline void owner_free_block(void *block)
{
    oxni_free_(block);
}

typedef windows_owner<HANDLE, owner_close_handle> owned_handle; /* process, token, snapshot */
typedef windows_owner<HANDLE, owner_close_handle, INVALID_HANDLE> owned_file;
typedef windows_owner<HANDLE, owner_close_find, INVALID_HANDLE> owned_find;
typedef windows_owner<HKEY, owner_close_key> owned_key;
typedef windows_owner<HANDLE, owner_close_event_log> owned_event_log;
typedef windows_owner<SC_HANDLE, owner_close_service> owned_service; /* the service manager, too */
typedef windows_owner<FILE *, owner_close_stream> owned_stream;
typedef windows_owner<void *, owner_free_block> owned_block; /* of the host's allocator */

#endif
