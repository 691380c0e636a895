/* Privileges of the process. They hold for the whole process, without a count of users. */
#ifndef PROCESS_PRIVILEGE_H
#define PROCESS_PRIVILEGE_H

#include <stdint.h>

/* Enables (1) or disables (any other value) a privilege. Failures are only logged: what needs the
 * privilege fails by itself. */
void adjust_process_privilege(const char *name, int32_t enable);

/* Enables a privilege and disables it at the end of the scope, also when an exception passes. */
class enabled_privilege
{
  public:
    /* name is borrowed. */
    explicit enabled_privilege(const char *name) : name_(name)
    {
        adjust_process_privilege(name_, 1);
    }

    ~enabled_privilege()
    {
        adjust_process_privilege(name_, 0);
    }

    enabled_privilege(const enabled_privilege &) = delete;
    enabled_privilege &operator=(const enabled_privilege &) = delete;

  private:
    const char *name_;
};

#endif
