#include "Ancillary/Loader.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

namespace Ancillary::Core::Loader {
namespace {

namespace fs = std::filesystem;

// An address inside this library, for dladdr to name the file it was loaded from (internal
// linkage: an inline variable of the header might resolve to another object's copy).
const char kLibraryAnchor = 0;

std::string demangled(const std::type_info& type) {
   int status = 0;
   std::unique_ptr<char, void (*)(void*)> name(
       abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
   return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

void checkPair(const std::string& prefix, const std::string& suffix) {
   if (prefix.empty() || suffix.empty()) {
      throw std::invalid_argument(fmt::format("plug-in loader: empty {} in ('{}', '{}')",
                                              prefix.empty() ? "prefix" : "suffix", prefix,
                                              suffix));
   }
}

// The `.so` files directly under `dir`, in name order; none when it is not a directory.
std::vector<fs::path> pluginFiles(const fs::path& dir) {
   std::vector<fs::path> files;
   std::error_code ec;
   if (!fs::is_directory(dir, ec)) return files;
   for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      std::error_code typeEc;
      if (it->path().extension() == ".so" && it->is_regular_file(typeEc)) {
         files.push_back(it->path());
      }
   }
   std::sort(files.begin(), files.end());
   return files;
}

// dlerror()'s text without the file name it usually starts with: the caller names the file.
std::string lastDlError(const std::string& path, std::string_view fallback) {
   const char* e = dlerror();
   std::string_view text = e ? std::string_view(e) : fallback;
   if (text.starts_with(path) && text.substr(path.size()).starts_with(": ")) {
      text.remove_prefix(path.size() + 2);
   }
   return std::string(text);
}

}  // namespace

void utilTypeMismatch(const Asic::RefCounted& util, std::string_view expected) {
   throw std::runtime_error(fmt::format("plug-in loader: object of type {} is not a {}",
                                        demangled(typeid(util)), expected));
}

void Registrar::factoryIs(std::string suffix, Factory factory) {
   if (suffix.empty() || !factory) {
      throw std::invalid_argument(
          fmt::format("plug-in {}: {} for prefix '{}'", file_,
                      suffix.empty() ? "factory with an empty suffix" : "null factory", prefix_));
   }
   factories_.emplace_back(std::move(suffix), std::move(factory));
}

Singleton& Singleton::instance() {
   static Singleton* loader = new Singleton;  // never destroyed: plug-ins outlive statics
   return *loader;
}

std::vector<std::string> Singleton::searchPath() {
   std::vector<std::string> dirs;
   const char* value = std::getenv(kPathVariable);
   if (!value) {
      if (std::string dir = defaultPluginDir(); !dir.empty()) dirs.push_back(std::move(dir));
      return dirs;
   }
   std::string_view rest(value);
   while (!rest.empty()) {
      const auto colon = rest.find(':');
      std::string_view dir = rest.substr(0, colon);
      if (!dir.empty()) dirs.emplace_back(dir);
      rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
   }
   return dirs;
}

std::string Singleton::defaultPluginDir() {
   Dl_info info{};
   if (!dladdr(&kLibraryAnchor, &info) || !info.dli_fname) return {};
   std::error_code ec;
   const fs::path library = fs::absolute(info.dli_fname, ec);
   return ec ? std::string() : pluginDirBeside(library.parent_path().string());
}

std::string Singleton::pluginDirBeside(const std::string& libraryDir) {
   std::error_code ec;
   if (fs::equivalent(libraryDir, VELMAR_BUILD_LIB_DIR, ec)) return VELMAR_BUILD_PLUGIN_DIR;
   return (fs::path(libraryDir) / VELMAR_INSTALLED_PLUGIN_DIR).lexically_normal().string();
}

std::size_t Singleton::load(const std::string& prefix, const std::string& suffix,
                            UtilLoaderBase& loader) {
   checkPair(prefix, suffix);
   std::vector<Factory> toRun;
   std::vector<std::string> failures;
   {
      std::lock_guard lock(mutex_);
      for (const std::string& dir : searchPath()) {
         for (const fs::path& file : pluginFiles(fs::path(dir) / prefix)) {
            std::error_code ec;
            fs::path canonical = fs::canonical(file, ec);
            open(prefix, ec ? file.string() : canonical.string());
         }
      }
      for (const auto& [path, file] : files_) {
         if (file.prefix == prefix && !file.error.empty()) failures.push_back(file.error);
      }
      if (auto it = factories_.find({prefix, suffix}); it != factories_.end()) toRun = it->second;
   }
   // Outside the lock and from a copy: a factory or the loader may call back in.
   std::size_t handed = 0;
   for (const Factory& factory : toRun) {
      if (Object util = factory()) {
         loader.utilIs(std::move(util));
         ++handed;
      }
   }
   if (!failures.empty()) {
      throw std::runtime_error(fmt::format("plug-in loader: {} plug-in(s) under '{}' failed: {}",
                                           failures.size(), prefix, fmt::join(failures, "; ")));
   }
   return handed;
}

void Singleton::open(const std::string& prefix, const std::string& path) {
   // Recorded before dlopen: a load() run by the plug-in's own static constructors skips it.
   auto [it, inserted] = files_.try_emplace(path, PluginFile{prefix, {}});
   if (!inserted) return;
   PluginFile& file = it->second;  // map nodes stay put across reentrant inserts

   dlerror();
   void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
   if (!handle) {
      file.error = fmt::format("plug-in {}: {}", path, lastDlError(path, "dlopen failed"));
      return;
   }
   dlerror();
   void* symbol = dlsym(handle, kInitSymbol);
   if (!symbol) {
      file.error = fmt::format("plug-in {}: {}", path, lastDlError(path, "no init symbol"));
      return;
   }

   Registrar registrar(prefix, path);
   try {
      reinterpret_cast<PluginInitFn>(symbol)(registrar);
   } catch (const std::exception& e) {
      file.error = fmt::format("plug-in {}: {} failed: {}", path, kInitSymbol, e.what());
      return;
   } catch (...) {
      file.error = fmt::format("plug-in {}: {} failed", path, kInitSymbol);
      return;
   }
   for (auto& [suffix, factory] : registrar.factories_) {
      factories_[{prefix, suffix}].push_back(std::move(factory));
   }
   opened_.push_back(path);
}

void Singleton::factoryIs(const std::string& prefix, const std::string& suffix, Factory factory) {
   checkPair(prefix, suffix);
   if (!factory) {
      throw std::invalid_argument(
          fmt::format("plug-in loader: null factory for ('{}', '{}')", prefix, suffix));
   }
   std::lock_guard lock(mutex_);
   factories_[{prefix, suffix}].push_back(std::move(factory));
}

std::size_t Singleton::factories(const std::string& prefix, const std::string& suffix) const {
   std::lock_guard lock(mutex_);
   auto it = factories_.find({prefix, suffix});
   return it == factories_.end() ? 0 : it->second.size();
}

std::vector<std::string> Singleton::plugins() const {
   std::lock_guard lock(mutex_);
   return opened_;
}

}  // namespace Ancillary::Core::Loader
