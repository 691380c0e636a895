/* Observation: log lines, complaints and events of the platform become entries of the journal. */
#ifndef DEVHOST_OBSERVE_H
#define DEVHOST_OBSERVE_H

/* From here on they are recorded. */
void observe_platform(void);

#endif
