#include "additional_info.h"

// Submission needs the expiring caches and the inventory; until then there is nothing to send.
void retry_user_agents() {}
void retry_fingerprints() {}
