#pragma once

#include <sys/types.h>

#include <vector>

#include "Kel/Types.h"
#include "Nivel/Addr.h"

// The collectors of the scale scenario: loopback sockets that another process
// drains and counts, so that receiving costs the exporter's process nothing.
namespace Scale {

struct Receiver {
   bool ipv6;
   Nivel::Port port;
   int fd;
};

// `count` sockets, every other one IPv6; every exporter sends to all of them.
class Receivers {
 public:
   explicit Receivers(int count);
   ~Receivers();
   Receivers(const Receivers&) = delete;
   Receivers& operator=(const Receivers&) = delete;

   const Receiver& at(int i) const { return receivers_.at(std::size_t(i)); }
   const std::vector<Receiver>& all() const { return receivers_; }
   // In the parent once the child has its copies.
   void closeAll();

 private:
   std::vector<Receiver> receivers_;
};

// What one collector must have counted to have every table.
struct Expected {
   Kel::U64 interfaces;
   Kel::U64 vrfs;
   Kel::U64 flowKeys;
};

// A child process that drains the receivers and reports, through a pipe,
// each collector stream (receiver and exporter socket) that has received the
// templates, the options templates and every options data table.
class ReceiverProcess {
 public:
   ReceiverProcess(Receivers& receivers, const Expected& expected, Kel::U64 streams);
   ~ReceiverProcess();
   ReceiverProcess(const ReceiverProcess&) = delete;
   ReceiverProcess& operator=(const ReceiverProcess&) = delete;

   Kel::U64 completeStreams();
   bool complete() { return completeStreams() >= streams_; }

 private:
   pid_t pid_ = -1;
   int pipe_ = -1;
   Kel::U64 streams_;
   Kel::U64 completed_ = 0;
};

}  // namespace Scale
