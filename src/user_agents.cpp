#include "user_agents.h"

#include <mutex>

#include "daemon_state.h"
#include "event_pipe.h"
#include "queue_limits.h"

void save_user_agent(const std::string& ip, const std::string& mac, const std::string& user_agent) {
    static QueueOverflow overflow("user agents", kMaxQueuedUserAgents);
    {
        // Queued and announced in one step under the mutex, as every queue does.
        const std::lock_guard lock(g_user_agents_mutex);
        if (g_user_agents.size() < kMaxQueuedUserAgents) {
            g_user_agents.push_back(UserAgent{address(ip), macaddr(mac), user_agent});
            wake_main_loop();
            return;
        }
    }
    overflow.refused();
}
