// The client end of the control socket: packets arrive over a connected stream socket that was
// inherited from the parent process. Everything that comes from the peer is distrusted: memory is
// bounded, and a malformed packet breaks the connection.
//
// The caller makes passes, each one comm_socket_v4_idle and then at most one
// comm_socket_v4_client_get_packet_from_server.
#pragma once

#include <memory>

#include "toolkit/comm/comm_socket_v4_packet.hpp"
#include "toolkit/owner.hpp"

struct comm_socket_v4; // opaque

// A client without a connection; null when there is no memory for it.
[[nodiscard]] comm_socket_v4* comm_socket_v4_create();

// Closes the connection if it is open, and frees the client. Returns null: what the caller's handle
// holds from then on.
comm_socket_v4* comm_socket_v4_destroy(comm_socket_v4* client);

using comm_socket_v4_ptr = std::unique_ptr<comm_socket_v4, destroy_with<comm_socket_v4_destroy>>;

// Attaches the inherited descriptor. 0 on success: the client owns the descriptor from then on and
// has set its close-on-exec flag. Negative when `fd` is no open, connected stream socket, or when
// the client has been attached before; the descriptor then stays the caller's.
[[nodiscard]] int comm_socket_v4_connect_use_socketpair(comm_socket_v4* client, int fd);

// Takes in what has arrived, without blocking, by at most one read of at most 64 KiB, and by none
// while a whole packet waits: a peer that floods the socket fills the kernel's buffer, not ours.
// Negative once nothing more can come: no connection, closed by the peer, or a malformed packet.
// Packets that had arrived whole before that are delivered first, one per pass.
[[nodiscard]] int comm_socket_v4_idle(comm_socket_v4* client);

// The next whole packet, owned by the caller; null when none is waiting.
[[nodiscard]] comm_socket_v4_packet*
comm_socket_v4_client_get_packet_from_server(comm_socket_v4* client);

// Closes the connection; packets not yet taken are lost.
void comm_socket_v4_close(comm_socket_v4* client);
