// HTTP user agents seen for LAN clients, queued for the main loop from any thread.
#pragma once

#include <string>

// Queues the agent and wakes the loop; no validation here. A full queue counts it as refused.
void save_user_agent(const std::string& ip, const std::string& mac, const std::string& user_agent);
