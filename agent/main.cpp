// ipfix-agent: runs the IPFIX export library over a configuration file.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>

#include "AgentRuntime.h"
#include "ConfigLoader.h"
#include "Ipfix/IpfixSm.h"
#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "Trace/Duplog.h"
#include "Trace/Flitlog.h"
#include "Trace/Sinks.h"

namespace {

constexpr const char* version = "ipfix-agent 0.1.0";

// Exit codes.
constexpr int exitOk = 0;
constexpr int exitFailure = 1;
constexpr int exitBadConfig = 2;

// The catalogue in its order: what the fields of a flow group may name, and
// how each goes into a template.
void printElements() {
   const auto catalogue = Ipfix::ipfixInitSmFactory()->elementIdCollection();
   std::printf("%-28s %5s %6s %s\n", "element", "id", "length", "enterprise");
   for (const Ipfix::RecordType type : catalogue->elementIdCollKeys()) {
      const Ipfix::ElementId e = catalogue->elementIdColl(type);
      const Kel::String length = e.len() == 65535 ? "varlen" : std::to_string(e.len());
      std::printf("%-28s %5u %6s %s\n", e.str().c_str(), static_cast<unsigned>(e.id()),
                  length.c_str(), e.enterpriseIe() ? "yes" : "no");
   }
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{
       "Exports the IPFIX templates and options data of a switch's flow tracking to "
       "its collectors, as the configuration file describes."};
   Kel::String configPath;
   Kel::String traceSpec;
   Kel::String traceFile;
   Kel::String statsTable;
   std::optional<Kel::String> controlSocket;
   bool checkOnly = false;
   bool listElements = false;
   app.add_option("-c,--config", configPath, "Configuration file (YAML)")->check(CLI::ExistingFile);
   app.add_flag("--check", checkOnly, "Validate the configuration file and exit: 0 valid, 2 not");
   app.add_flag("--list-elements", listElements,
                "List the information elements a flow group's fields may name, and exit");
   app.add_option("--trace", traceSpec, "Trace levels, e.g. Ipfix/4,Bexa/1 (as IPFIX_TRACE)");
   app.add_option("--trace-file", traceFile, "Write the text trace to this file, not stderr");
   app.add_option("--stats-table", statsTable,
                  "Shared-memory statistics table; overrides the file's statistics-table");
   app.add_option("--control-socket", controlSocket,
                  "Path of the control socket, instead of ipfix-agent.<table>.sock in the runtime "
                  "directory ($RUNTIME_DIRECTORY, $XDG_RUNTIME_DIR or /run/ipfix-agent)");
   app.set_version_flag("--version", version);
   CLI11_PARSE(app, argc, argv);
   TraceSinks::installDefaults();

   if (listElements) {
      printElements();
      return exitOk;
   }
   if (configPath.empty()) {
      std::fprintf(stderr, "ipfix-agent: --config is required\n%s", app.help().c_str());
      return exitFailure;
   }
   Kel::String error;
   if (!traceSpec.empty() && !Kel::Trace::configure(traceSpec, &error)) {
      std::fprintf(stderr, "ipfix-agent: --trace: %s\n", error.c_str());
      return exitFailure;
   }
   if (!traceFile.empty() && !Duplog::textTrace().outputIs(traceFile, &error)) {
      std::fprintf(stderr, "ipfix-agent: --trace-file: %s\n", error.c_str());
      return exitFailure;
   }
   if (checkOnly) {
      const Agent::LoadResult result = Agent::load(configPath);
      for (const Agent::ConfigError& e : result.errors) {
         std::fprintf(stderr, "%s\n", e.str().c_str());
      }
      return result.config ? exitOk : exitBadConfig;
   }

   // A broken invariant ends the process, after the binary trace is dumped.
   Flitlog::dumpOnFatalErrors();
   Agent::AgentRuntime::Options options{configPath, std::nullopt, controlSocket};
   if (!statsTable.empty()) {
      options.statisticsTable = statsTable;
   }
   Agent::AgentRuntime agent(options);
   try {
      if (!agent.start()) {
         return exitBadConfig;
      }
   } catch (const Kel::Exception& e) {
      std::fprintf(stderr, "ipfix-agent: %s\n", e.what());
      return exitFailure;
   }
   return agent.run();
}
