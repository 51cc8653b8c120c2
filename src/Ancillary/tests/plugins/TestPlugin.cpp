// A plug-in for the loader tests: one object for each of two suffixes, plus a factory that
// declines.
#include "Ancillary/Loader.h"
#include "Ancillary/tests/plugins/TestPluginApi.h"

namespace {

int initCalls = 0;

class Util final : public AncillaryTest::PluginUtil {
 public:
   explicit Util(std::string name) : name_(std::move(name)) {}
   std::string name() const override { return name_; }
   int initCalls() const override { return ::initCalls; }

 private:
   std::string name_;
};

}  // namespace

VELMAR_PLUGIN_INIT(registrar) {
   ++initCalls;
   registrar.factoryIs(AncillaryTest::kUtilSuffix,
                       [] { return Asic::makePtr<Util>("plugin util"); });
   registrar.factoryIs(AncillaryTest::kUtilSuffix,
                       [] { return Ancillary::Core::Loader::Object(); });
   registrar.factoryIs(AncillaryTest::kOtherSuffix,
                       [] { return Asic::makePtr<Util>("plugin other"); });
}
