#include "Memory.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace Scale {

namespace {

constexpr double kibPerMib = 1024.0;

}  // namespace

double residentMiB() {
   // /proc/self/smaps: a header line per mapping ("start-end perms offset
   // dev inode path"), then its counters, Rss among them, in KiB.
   std::ifstream smaps("/proc/self/smaps");
   std::string line;
   bool shared = false;
   std::string segment;
   double privateKib = 0;
   std::map<std::string, double> sharedKib;  // by device and inode
   while (std::getline(smaps, line)) {
      std::istringstream fields(line);
      std::string first;
      fields >> first;
      if (first.find('-') != std::string::npos && first.back() != ':') {
         std::string perms, offset, device, inode;
         fields >> perms >> offset >> device >> inode;
         shared = perms.size() == 4 && perms[3] == 's';
         segment = device + " " + inode;
      } else if (first == "Rss:") {
         double kib = 0;
         fields >> kib;
         if (shared) {
            double& most = sharedKib[segment];
            most = std::max(most, kib);
         } else {
            privateKib += kib;
         }
      }
   }
   for (const auto& [name, kib] : sharedKib) {
      privateKib += kib;
   }
   return privateKib / kibPerMib;
}

double kernelResidentMiB() {
   long pages = 0;
   long resident = 0;
   if (FILE* f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) {
         resident = 0;
      }
      std::fclose(f);
   }
   return double(resident) * double(sysconf(_SC_PAGESIZE)) / (kibPerMib * kibPerMib);
}

double heapOctets() {
   const struct mallinfo2 m = mallinfo2();
   return double(m.uordblks + m.hblkhd);
}

}  // namespace Scale
