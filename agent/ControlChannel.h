#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "Bexa/TaskScheduler.h"
#include "Kel/Types.h"
#include "SocketLocation.h"

namespace Agent {

// The agent's control socket: a Unix datagram socket at a path of the file
// system, watched by the event loop. Each datagram is one request; the
// handler's answer goes back to the sender's address as one datagram; a
// request from a sender without an address is dropped undone.
// Nothing here blocks: requests are read and replies sent without waiting,
// and a reply the sender is not ready for is dropped.
//
// Only the process's own user (its effective uid) and root are answered,
// checked from the credentials the kernel attaches to every datagram: the
// socket file's permissions keep other users out, but a descriptor connected
// to it can be handed to anyone. Others, and a datagram without credentials,
// get an error reply, and the attempt goes to stderr and the trace.
//
// The socket file is created for the owner only (like the statistics table's
// segment), replaces a stale one that no process serves, and is removed when
// the channel goes, as long as it is still the one this channel created.
class ControlChannel {
 public:
   using Handler = std::function<Kel::String(std::string_view request)>;

   // Throws Kel::Exception when the socket's directory is missing (and is not
   // the default one, which is made), is not a directory, when another
   // process serves the socket or its path is taken by something other than
   // a socket; Kel::ErrnoException when the socket cannot be made.
   ControlChannel(Kel::Ptr<Bexa::TaskSchedulerRoot> scheduler, Control::SocketLocation location,
                  Handler handler);
   ~ControlChannel();
   ControlChannel(const ControlChannel&) = delete;
   ControlChannel& operator=(const ControlChannel&) = delete;

   const Kel::String& path() const { return location_.path; }

 private:
   void prepareDirectory() const;
   void removeStaleSocket() const;
   void bindSocket();
   void handleReadable();
   // Why a request from `sender` (nullopt: no credentials came) is refused,
   // which is reported on stderr and in the trace; nullopt when it is not.
   std::optional<Kel::String> refusal(const std::optional<ucred>& sender) const;

   Kel::Ptr<Bexa::TaskSchedulerRoot> scheduler_;
   Control::SocketLocation location_;
   Handler handler_;
   const uid_t ownerUid_;
   int fd_ = -1;
   // The socket file as bound, so that only that file is removed at the end.
   dev_t fileDevice_ = 0;
   ino_t fileInode_ = 0;
   std::unique_ptr<Bexa::Task> task_;
   Bexa::FdWatch watch_;
};

}  // namespace Agent
