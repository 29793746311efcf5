/* The message bus between the daemons of the box, carried over MQTT 5.
 *
 * Every event and request named N travels on topic "nkex/msg/N". A request carries the
 * response topic "nkex/rsp/<client id>" and its 64-bit id as correlation data; the answer
 * comes back on that topic with the same correlation data and a "status" user property.
 * Callbacks run on the bus library's own thread. */
#ifndef NK_NKEX_H
#define NK_NKEX_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NKEX_NAME_MAX 256
#define NKEX_STATUS_MAX 16

/* Bus status texts: "0" delivered, "110" timed out. */
#define NKEX_STATUS_OK "0"
#define NKEX_STATUS_TIMEOUT "110"

typedef struct Message {
    char name[NKEX_NAME_MAX];     /* event or request name (the destination of a request) */
    const char* data;             /* payload, not NUL-terminated; may be null when length is 0 */
    size_t length;                /* payload length in bytes */
    uint64_t id;                  /* received request: the id to answer with */
    char status[NKEX_STATUS_MAX]; /* response: the responder's status text */
} Message;

typedef struct nkex_handle nkex_handle;

/* Called for every event and request received on a subscribed name. */
typedef void (*nkex_msg_callback_t)(const Message* message, void* context);
/* Called exactly once per asynchronous request: with the answer, or at the time-out with
 * status "110" and no data. */
typedef void (*nkex_response_callback_t)(void* context, const Message* response);

/* Connects as client `name` (waiting up to 2 s for the first connection, then reconnecting by
 * itself). `context` is handed to `callback`; `flags` is reserved (pass 1). Null on failure.
 * Messages the broker kept for this client id may reach `callback` before this returns. */
nkex_handle* nkex_init(const char* name, nkex_msg_callback_t callback, void* context, int flags);
/* Waits (up to NKEX_TIMEOUT_MS) for the broker to confirm. Non-zero when a subscription could
 * not be made now; it is made again on every connect. */
int nkex_subscribe(nkex_handle* handle, const char* const* names, size_t count);
/* An event: no answer. 0 on success (queued when disconnected). */
int nkex_send_message(nkex_handle* handle, const char* name, const void* data, size_t length);
/* An asynchronous request. 0 when queued; then `callback` is called exactly once. */
int nkex_send_request(nkex_handle* handle, const char* destination, const void* data, size_t length,
                      nkex_response_callback_t callback, void* context);
/* Sends request->name with request->data and waits up to NKEX_TIMEOUT_MS for the answer.
 * 0 on success; *response is then owned by the caller (nkex_free_response). Never call it
 * from a bus callback: it would wait for its own thread. */
int nkex_send_request_and_wait_response(nkex_handle* handle, const Message* request,
                                        Message** response);
/* While a synchronous request of this handle waits, `hook(context)` runs on the waiting thread
 * each time `fd` is readable, so that the caller's loop can serve urgent work meanwhile; it must
 * consume what made `fd` readable. A null hook or a negative fd removes it. */
typedef void (*nkex_wait_hook_t)(void* context);
void nkex_set_wait_hook(nkex_handle* handle, int fd, nkex_wait_hook_t hook, void* context);
/* Answers a received request by its id; `status` becomes the status text ("0" for 0). */
int nkex_send_response(nkex_handle* handle, int status, uint64_t request_id, const void* data,
                       size_t length);
/* Only for the answers of nkex_send_request_and_wait_response. */
void nkex_free_response(Message* response);
/* Waits briefly for the broker to acknowledge what was sent, disconnects, and calls the
 * callbacks of asynchronous requests still waiting, with status "110". Not from a callback. */
void nkex_uninit(nkex_handle* handle);

#ifdef __cplusplus
}

#include <fmt/format.h>

#include <memory>
#include <string_view>

namespace nk {
/* Owns a connection: nkex_uninit when it goes. */
struct NkexDeleter {
    void operator()(nkex_handle* handle) const { nkex_uninit(handle); }
};
using nkex_ptr = std::unique_ptr<nkex_handle, NkexDeleter>;
}  // namespace nk

/* Log form: name, id, status and the payload text. */
template <>
struct fmt::formatter<Message> : fmt::formatter<std::string_view> {
    template <typename Ctx>
    auto format(const Message& m, Ctx& ctx) const {
        const std::string_view data(m.data ? m.data : "", m.data ? m.length : 0);
        return fmt::format_to(ctx.out(), "name={:s}, id={:d}, status={:s}, data={:s}",
                              std::string_view(m.name), m.id, std::string_view(m.status), data);
    }
};
#endif

#endif /* NK_NKEX_H */
