// Plug-in: supplies the port aggregation register's Util for the simulated chip.
#include "Ancillary/Loader.h"
#include "ChipSim/plugins/MmuRqeReplPortAggMapRegisterSimUtil.h"

VELMAR_PLUGIN_INIT(registrar) {
   registrar.factoryIs(std::string(VelmarMcast::MmuRqeReplPortAggMapRegister::kTypeName), [] {
      return Asic::makePtr<ChipSim::MmuRqeReplPortAggMapRegisterSimUtil>();
   });
}
