// Bytes as an agent configuration file: whatever JSON parses must be accepted or refused with
// a ConfigError; any other exception escapes and is a finding. An accepted configuration
// written back out must be accepted again and write out the same (what `gen` writes and
// `run` reads must agree).

#include <cstddef>
#include <cstdint>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "McastAgent/Config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const auto json = nlohmann::json::parse(data, data + size, nullptr, /*allow_exceptions=*/false);
   if (json.is_discarded()) return 0;
   McastAgent::Config config;
   try {
      config = McastAgent::configFromJson(json, "fuzz.json");
   } catch (const McastAgent::ConfigError& e) {
      FUZZ_CHECK(e.path().starts_with("/"), "refusal without a JSON path: {}", e.what());
      return 0;
   }
   const nlohmann::json written = config.toJson();
   McastAgent::Config again;
   try {
      again = McastAgent::configFromJson(written, "fuzz.json");
   } catch (const McastAgent::ConfigError& e) {
      Fuzz::fail(fmt::format("an accepted configuration, written out, is refused: {}\n{}", e.what(),
                             written.dump()));
   }
   const nlohmann::json rewritten = again.toJson();
   FUZZ_CHECK(rewritten == written, "written out twice, differs:\n{}\n{}", written.dump(),
              rewritten.dump());
   return 0;
}
