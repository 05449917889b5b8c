#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "support/ChildProcess.h"

// The manual pages: they render without a warning, and each command's
// options are the same in its page as in its --help.
namespace {

using TestSupport::ChildProcess;

const std::string manDir = MAN_DIR;

// Roff text as it reads: hyphens, no font changes, no zero-width escapes.
std::string plain(const std::string& roff) {
   std::string text;
   for (std::size_t i = 0; i < roff.size(); ++i) {
      if (roff[i] != '\\' || i + 1 == roff.size()) {
         text += roff[i];
      } else if (roff[i + 1] == '-') {
         text += '-';
         ++i;
      } else if (roff[i + 1] == '%' || roff[i + 1] == '&') {
         ++i;
      } else if (roff[i + 1] == 'f' && i + 2 < roff.size()) {
         i += 2;
      } else {
         text += roff[i];
      }
   }
   return text;
}

// Options named by the tags of each section's (.SH) or subsection's (.SS)
// items (.TP), by heading: the words of a tag that start with '-'.
std::map<std::string, std::set<std::string>> manOptions(const std::string& page) {
   std::ifstream in(manDir + "/" + page);
   std::map<std::string, std::set<std::string>> options;
   std::string heading;
   std::string line;
   bool tagNext = false;
   while (std::getline(in, line)) {
      if (line.starts_with(".SH ") || line.starts_with(".SS ")) {
         heading = plain(line.substr(4));
         std::erase(heading, '"');
      } else if (line == ".TP") {
         tagNext = true;
      } else if (std::exchange(tagNext, false)) {
         std::string tag = plain(line);
         std::replace(tag.begin(), tag.end(), ',', ' ');
         std::istringstream words(tag);
         for (std::string word; words >> word;) {
            if (word.starts_with("-")) {
               options[heading].insert(word);
            }
         }
      }
   }
   return options;
}

struct Help {
   std::set<std::string> options;
   std::vector<std::string> subcommands;
};

// The options and subcommands `--help` lists: the first column of its
// "Options:" and "Subcommands:" sections.
Help help(std::vector<std::string> command) {
   command.push_back("--help");
   const ChildProcess::Result result = ChildProcess::run(command);
   EXPECT_EQ(result.exitCode, 0) << result.err;
   Help h;
   std::istringstream in(result.out);
   std::string section;
   std::string line;
   while (std::getline(in, line)) {
      if (!line.empty() && line.back() == ':' && line.front() != ' ') {
         section = line;
      } else if (line.starts_with("  ") && line[2] != ' ') {
         const std::string first = line.substr(2, line.find(' ', 2) - 2);
         if (section == "Subcommands:") {
            h.subcommands.push_back(first);
         } else if (section == "Options:") {
            std::istringstream names(first);
            for (std::string name; std::getline(names, name, ',');) {
               h.options.insert(name);
            }
         }
      }
   }
   return h;
}

TEST(ManPages, RenderWithoutWarnings) {
   for (const char* page : {"ipfix-agent.8", "ipfix-stats.8", "ipfix-agent.yaml.5"}) {
      SCOPED_TRACE(page);
      const ChildProcess::Result result =
          ChildProcess::run({GROFF_PATH, "-man", "-ww", "-Tutf8", "-z", manDir + "/" + page});
      EXPECT_EQ(result.exitCode, 0);
      EXPECT_EQ(result.err, "");
   }
}

// Every command and subcommand, found from --help itself, so that a new one
// without a page section fails too. A subcommand's section is the
// subsection named "<program> <subcommand>".
TEST(ManPages, DocumentEveryOptionOfHelpAndNoOther) {
   const struct {
      const char* program;
      std::string path;
      const char* page;
   } programs[] = {
       {"ipfix-agent", IPFIX_AGENT_PATH, "ipfix-agent.8"},
       {"ipfix-stats", IPFIX_STATS_PATH, "ipfix-stats.8"},
   };
   for (const auto& p : programs) {
      const auto documented = manOptions(p.page);
      const Help top = help({p.path});
      const auto expectSame = [&](const std::string& heading, const Help& listed) {
         SCOPED_TRACE(std::string(p.page) + ", " + heading);
         ASSERT_FALSE(listed.options.empty()) << "--help listed no options";
         const auto it = documented.find(heading);
         ASSERT_NE(it, documented.end()) << "no section " << heading;
         EXPECT_EQ(it->second, listed.options);
      };
      expectSame("OPTIONS", top);
      for (const std::string& sub : top.subcommands) {
         expectSame(std::string(p.program) + " " + sub, help({p.path, sub}));
      }
   }
}

}  // namespace
