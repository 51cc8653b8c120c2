#pragma once
// What the process-level tests of the agent share: the agent under test run with arguments,
// its JSON output read back, and a file's bytes (chip files are compared byte for byte).

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "AgentProcess.h"
#include "ChipSim/ScratchDir.h"

namespace AgentTest {

// The build's agent binary (MCAST_AGENT, set by the test target).
inline AgentProcess::Result agent(const std::vector<std::string>& args) {
   return AgentProcess::run(MCAST_AGENT, args);
}

// The command's standard output as JSON; a failure of the test (and an empty object) when
// it is not.
inline nlohmann::json parse(const AgentProcess::Result& r) {
   try {
      return nlohmann::json::parse(r.out);
   } catch (const nlohmann::json::exception& e) {
      ADD_FAILURE() << "not JSON (" << e.what() << "): " << r;
      return nlohmann::json::object();
   }
}

inline std::string readFile(const std::filesystem::path& p) {
   std::ifstream in(p, std::ios::binary);
   std::string bytes(std::filesystem::file_size(p), '\0');
   in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
   return bytes;
}

}  // namespace AgentTest
