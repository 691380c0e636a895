/* What would change the answer of a replay: evidence that is missing or contradicts itself. */
#ifndef DEVHOST_DOUBTS_H
#define DEVHOST_DOUBTS_H

#include <string>
#include <vector>

#include "replay.h"

struct replay_doubt {
    std::string reason; /* half a sentence: "no dump of the crash was handed in" */
    std::string text;   /* file, event record and what to hand in */
    bool decides;       /* without a bypass, the answer is "cannot tell" because of it */
};

/* The doubts of a boot that was played, the deciding ones first. */
std::vector<replay_doubt> doubts_of(const replay_evidence &evidence, const replay_story &story);

#endif
