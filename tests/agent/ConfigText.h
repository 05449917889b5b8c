#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "agent/ConfigLoader.h"

// Configurations for the agent's tests, written as the operator would.
namespace ConfigText {

inline Kel::String demoPath() {
   return EXAMPLES_DIR "/demo.yaml";
}

inline Kel::String readFile(const Kel::String& path) {
   std::ifstream in(path);
   std::ostringstream text;
   text << in.rdbuf();
   return text.str();
}

// `text` with the first `from` replaced by `to`; `from` must be there.
inline Kel::String edited(Kel::String text, const Kel::String& from, const Kel::String& to) {
   const auto at = text.find(from);
   EXPECT_NE(at, Kel::String::npos) << "no \"" << from << "\" to replace";
   if (at != Kel::String::npos) {
      text.replace(at, from.size(), to);
   }
   return text;
}

// A configuration the test expects to be valid.
inline Agent::AgentConfig configOf(const Kel::String& yaml) {
   auto result = Agent::parse(yaml, "test.yaml");
   for (const auto& e : result.errors) {
      ADD_FAILURE() << e.str();
   }
   return result.config.value_or(Agent::AgentConfig());
}

}  // namespace ConfigText
