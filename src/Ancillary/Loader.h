#pragma once
// The process's plug-in loader. A consumer (a table's UtilLoader) asks for the objects
// registered under a (prefix, suffix) pair, for example ("AsicFeature",
// "VelmarMcast::IngIpmcRemapTable"), and the loader hands each one to it. Objects come from
// factories, registered either by plug-ins (shared objects found on the search path) or directly
// in-process (tests, statically linked builds).
//
// Plug-in convention:
// - The search path is the environment variable VELMAR_PLUGIN_PATH, directories separated by
//   ':', read at every load(). Unset, it is the default plug-in folder: the one of the build
//   tree or installation this library belongs to (defaultPluginDir()), so that installed
//   programs need no environment. Empty, or naming directories that do not exist, means no
//   plug-ins; that is not an error.
// - The plug-ins of a prefix are the files `<dir>/<prefix>/*.so` of every directory of the
//   path: directories in path order, files in name order. File names are free; by habit
//   they name the type supplied (plugins/AsicFeature/VelmarMcast_IngIpmcRemapTable.so).
// - Each file is opened once (dlopen, RTLD_NOW | RTLD_LOCAL) and initialised once per loader
//   object (so once per process for instance()), the first time a load() of its prefix
//   runs, and never closed: its static constructors may have left
//   pointers into it.
// - A plug-in exports `extern "C" void velmarPluginInit(Ancillary::Core::Loader::Registrar&)`
//   (spelled by VELMAR_PLUGIN_INIT below) and registers through the registrar one factory
//   per suffix it supplies. The suffix, not the file name, decides what it serves.
//
// Failures: a file that does not open, lacks the init symbol, or whose init throws, has
// nothing registered. load() still opens the other files and hands over what they supply,
// then throws std::runtime_error naming every failed file of the prefix with the reason
// (dlerror()'s text). A failed file is not retried; every later load() of its prefix
// reports it again.

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

#include "Asic/RefCounted.h"
#include "Asic/TypeName.h"

namespace Ancillary::Core::Loader {

using Object = Asic::Ptr<Asic::RefCounted>;
// Makes one object per call; may return null to decline (say, a plug-in for another chip).
using Factory = std::function<Object()>;

inline constexpr char kPathVariable[] = "VELMAR_PLUGIN_PATH";
inline constexpr char kInitSymbol[] = "velmarPluginInit";

// Receives the objects that load() finds.
class UtilLoaderBase {
 public:
   virtual ~UtilLoaderBase() = default;
   virtual void utilIs(Object util) = 0;
};

// Throws std::runtime_error: `util` is not of the type named `expected`.
[[noreturn]] void utilTypeMismatch(const Asic::RefCounted& util, std::string_view expected);

// A loader that accepts only objects of type `Util` (or derived) and hands them on typed.
template <typename Util>
class TypedUtilLoader : public UtilLoaderBase {
 public:
   void utilIs(Object util) final {
      if (!util) return;
      auto* typed = dynamic_cast<Util*>(util.get());
      if (!typed) utilTypeMismatch(*util, Asic::compilerTypeName<Util>());
      typedUtilIs(Asic::Ptr<Util>(typed));
   }

 protected:
   virtual void typedUtilIs(Asic::Ptr<Util> util) = 0;
};

// Handed to a plug-in's init function; collects what it registers. Nothing counts until
// the init function returns normally.
class Registrar {
 public:
   // Throws std::invalid_argument for an empty suffix or a null factory.
   void factoryIs(std::string suffix, Factory factory);

   const std::string& prefix() const noexcept { return prefix_; }
   const std::string& file() const noexcept { return file_; }

 private:
   friend class Singleton;
   Registrar(std::string prefix, std::string file)
       : prefix_(std::move(prefix)), file_(std::move(file)) {}

   std::string prefix_;
   std::string file_;
   std::vector<std::pair<std::string, Factory>> factories_;
};

using PluginInitFn = void (*)(Registrar&);

class Singleton {
 public:
   // The process's loader.
   static Singleton& instance();
   // A loader of its own, with nothing registered: for tests. Plug-in files are still
   // opened once per process by the dynamic linker; their init runs once per loader.
   Singleton() = default;
   Singleton(const Singleton&) = delete;
   Singleton& operator=(const Singleton&) = delete;

   // Opens the prefix's plug-ins not yet opened, then hands `loader` one object from each
   // factory registered for (prefix, suffix), in registration order. Returns how many
   // objects it handed over. Throws as described at the top of this file, and
   // std::invalid_argument for an empty prefix or suffix.
   std::size_t load(const std::string& prefix, const std::string& suffix, UtilLoaderBase& loader);

   // Registers a factory in-process, after any already registered for the pair. Throws
   // std::invalid_argument for an empty prefix or suffix or a null factory.
   void factoryIs(const std::string& prefix, const std::string& suffix, Factory factory);
   std::size_t factories(const std::string& prefix, const std::string& suffix) const;

   // Files opened successfully, in opening order.
   std::vector<std::string> plugins() const;

   // VELMAR_PLUGIN_PATH's directories, empty entries dropped; defaultPluginDir() when the
   // variable is unset.
   static std::vector<std::string> searchPath();
   // pluginDirBeside() the folder this library was loaded from; empty when that is unknown.
   static std::string defaultPluginDir();
   // The plug-in folder that goes with a library folder: the build tree's plug-in folder for
   // the build tree's library folder, otherwise the installed one, relative to the library
   // folder (<prefix>/lib/velmar_mcast/plugins for <prefix>/lib).
   static std::string pluginDirBeside(const std::string& libraryDir);

 private:
   struct PluginFile {
      std::string prefix;
      std::string error;  // empty when the plug-in was loaded
   };
   void open(const std::string& prefix, const std::string& path);

   mutable std::recursive_mutex mutex_;       // a plug-in's init may call back in
   std::map<std::string, PluginFile> files_;  // by canonical path
   std::vector<std::string> opened_;          // loaded files, in opening order
   std::map<std::pair<std::string, std::string>, std::vector<Factory>> factories_;
};

}  // namespace Ancillary::Core::Loader

// Defines a plug-in's init function: VELMAR_PLUGIN_INIT(registrar) { registrar.factoryIs(...); }
#define VELMAR_PLUGIN_INIT(registrar)                                       \
   extern "C" __attribute__((visibility("default"))) void velmarPluginInit( \
       ::Ancillary::Core::Loader::Registrar& registrar)
