// Submission of fingerprints and user agents to the cloud, with retries.
#pragma once

// Resends what failed before; the retry timer calls them.
void retry_user_agents();
void retry_fingerprints();
