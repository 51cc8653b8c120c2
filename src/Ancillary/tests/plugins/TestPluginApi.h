#pragma once
// What the loader tests and their test plug-in share: the object the plug-in supplies.

#include <string>

#include "Asic/RefCounted.h"

namespace AncillaryTest {

inline constexpr char kPrefix[] = "LoaderTest";
inline constexpr char kUtilSuffix[] = "LoaderTest::Util";
inline constexpr char kOtherSuffix[] = "LoaderTest::Other";

class PluginUtil : public Asic::RefCounted {
 public:
   virtual std::string name() const = 0;
   // How often the plug-in's init function has run in this process.
   virtual int initCalls() const = 0;
};

}  // namespace AncillaryTest
