// Farewell: the last words of a store, when the process ends without asking anybody.
//
// Purpose    Manager::exit ends the process at once, perhaps from a signal handler. One message that was
// prepared
//            before can still go then, if nothing is half sent: the manager number is free for the next one
//            at once, and not only when the lease has run out.
// Ownership  One socket of the process at a time; it belongs to the caller, who withdraws it before closing
// it. Thread     offer() to withdraw(): the thread of the store. say(): any, a signal handler too;
// async-signal-safe. Errors     None; what cannot be said is left unsaid.
#pragma once

#include <string_view>

namespace pvss::farewell {

/// From now on say() sends these bytes to the socket. False when another one is offered already, or when they
/// are too long.
bool offer(int socket, std::string_view bytes) noexcept;
void withdraw() noexcept;

/// Around everything that is sent to the socket. Between them nothing is said, nor behind an end() that left
/// a message half sent. False when the last words were said already: then nothing may follow them.
bool begin() noexcept;
void end(bool whole) noexcept;

void say() noexcept;

}  // namespace pvss::farewell
