#pragma once
// Where a table's Util comes from: the plug-ins under "AsicFeature" that supply the table's
// full type name. One loader per table type and process; the last Util supplied wins.

#include <cstddef>
#include <string>

#include "Ancillary/Loader.h"
#include "Asic/RefCounted.h"

namespace Asic {

template <typename Table>
class SwTableUtilLoader : public Ancillary::Core::Loader::TypedUtilLoader<typename Table::Util> {
 public:
   using Util = typename Table::Util;

   static std::string prefixPath() { return "AsicFeature"; }
   static std::string suffixPath() { return std::string(Table::kTypeName); }

   // The singleton, created (and its plug-ins loaded) on first use.
   static SwTableUtilLoader& instance() {
      static SwTableUtilLoader* loader = [] {
         auto* created = new SwTableUtilLoader(std::string(Table::kTypeName));  // process lifetime
         created->load();
         return created;
      }();
      return *loader;
   }
   // Asks the plug-in loader again (for a search path set after start-up).
   std::size_t load() {
      return Ancillary::Core::Loader::Singleton::instance().load(prefixPath(), suffixPath(), *this);
   }
   // The Util to bind a new table to, loading again if none was supplied yet.
   Asic::Ptr<Util> utilForNewTable() {
      if (!util_) load();
      return util_;
   }
   Asic::Ptr<Util> util() const { return util_; }
   const std::string& name() const noexcept { return name_; }

 protected:
   explicit SwTableUtilLoader(std::string name) : name_(std::move(name)) {}
   void typedUtilIs(Asic::Ptr<Util> util) override { util_ = std::move(util); }

 private:
   std::string name_;
   Asic::Ptr<Util> util_;
};

}  // namespace Asic
