#pragma once
// A fresh directory under /tmp for a chip (or whatever a test keeps beside it), removed
// with everything in it when it goes. Tests of the chip files and of the agent use it.

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace ChipSim {

class ScratchDir {
 public:
   explicit ScratchDir(std::string_view prefix = "chipsim") {
      std::string t = "/tmp/" + std::string(prefix) + "-XXXXXX";
      if (!::mkdtemp(t.data())) {
         throw std::runtime_error("mkdtemp " + t + ": " +
                                  std::error_code(errno, std::generic_category()).message());
      }
      path_ = t;
   }
   ~ScratchDir() {
      std::error_code ec;
      std::filesystem::remove_all(path_, ec);
   }
   ScratchDir(const ScratchDir&) = delete;
   ScratchDir& operator=(const ScratchDir&) = delete;

   const std::filesystem::path& path() const noexcept { return path_; }

 private:
   std::filesystem::path path_;
};

}  // namespace ChipSim
