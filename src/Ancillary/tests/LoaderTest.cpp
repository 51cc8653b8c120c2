#include "Ancillary/Loader.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Ancillary/tests/plugins/TestPluginApi.h"

namespace Ancillary::Core::Loader {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

const std::string kPluginDir = VELMAR_TEST_PLUGIN_DIR;

class RecordingLoader : public UtilLoaderBase {
 public:
   void utilIs(Object util) override { utils.push_back(std::move(util)); }
   std::vector<std::string> names() const {
      std::vector<std::string> out;
      for (const Object& u : utils) {
         auto* p = dynamic_cast<const AncillaryTest::PluginUtil*>(u.get());
         out.push_back(p ? p->name() : "<not a test util>");
      }
      return out;
   }
   std::vector<Object> utils;
};

struct Named : Asic::RefCounted {
   explicit Named(std::string n) : name(std::move(n)) {}
   std::string name;
};
struct Other : Asic::RefCounted {};

// Each test gets a loader of its own and the test plug-ins' directory as search path; the
// binary runs the same standalone or under ctest.
class LoaderTest : public ::testing::Test {
 protected:
   LoaderTest() { pathIs(kPluginDir); }
   ~LoaderTest() override {
      std::error_code ec;
      if (!tmp_.empty()) fs::remove_all(tmp_, ec);
   }
   static void pathIs(const std::string& value) { setenv(kPathVariable, value.c_str(), 1); }
   // A scratch directory of this test's own.
   const fs::path& tmp() {
      if (tmp_.empty()) {
         const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
         tmp_ = fs::temp_directory_path() /
                fmt::format("velmar-loader-{}-{}", ::getpid(), info->name());
         fs::create_directories(tmp_);
      }
      return tmp_;
   }

   Singleton loader_;
   RecordingLoader rec_;

 private:
   fs::path tmp_;
};

// Verify that a load finds the plug-in under its prefix, opens it and hands over the
// objects of the asked suffix only, skipping a factory that declines.
TEST_F(LoaderTest, LoadHandsThePluginObjectsOfTheSuffix) {
   EXPECT_EQ(loader_.load(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix, rec_), 1u);
   EXPECT_THAT(rec_.names(), ElementsAre("plugin util"));
   EXPECT_THAT(loader_.plugins(), ElementsAre(EndsWith("/LoaderTest/ancillary_test_plugin.so")));
   EXPECT_EQ(loader_.factories(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix), 2u);
}

// Verify that a plug-in is opened and initialised once, however often and for whatever
// suffix its prefix is loaded, even when its directory appears twice in the path.
TEST_F(LoaderTest, PluginIsOpenedOnce) {
   pathIs(kPluginDir + ":" + kPluginDir + "/../plugins");
   loader_.load(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix, rec_);
   loader_.load(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix, rec_);
   loader_.load(AncillaryTest::kPrefix, AncillaryTest::kOtherSuffix, rec_);
   EXPECT_THAT(rec_.names(), ElementsAre("plugin util", "plugin util", "plugin other"));
   EXPECT_THAT(loader_.plugins(), SizeIs(1));
   EXPECT_EQ(loader_.factories(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix), 2u)
       << "a second init would have registered the factories again";

   const int initCalls = dynamic_cast<AncillaryTest::PluginUtil&>(*rec_.utils[0]).initCalls();
   RecordingLoader again;
   loader_.load(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix, again);
   EXPECT_EQ(dynamic_cast<AncillaryTest::PluginUtil&>(*again.utils[0]).initCalls(), initCalls);
}

// Verify that an empty search path, a missing directory, and a directory with no plug-ins
// all mean no plug-ins, not an error.
TEST_F(LoaderTest, NoPluginsIsNotAnError) {
   fs::create_directories(tmp() / AncillaryTest::kPrefix);
   for (const std::string& path :
        {std::string(), std::string("::"), (tmp() / "missing").string(), tmp().string()}) {
      pathIs(path);
      EXPECT_EQ(loader_.load(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix, rec_), 0u)
          << "path '" << path << "'";
   }
   EXPECT_TRUE(rec_.utils.empty());
   EXPECT_TRUE(loader_.plugins().empty());
}

// Verify that the search path is read at each load and split on ':', empty entries dropped.
TEST_F(LoaderTest, SearchPathSplitsOnColons) {
   pathIs("/a::/b:");
   EXPECT_THAT(Singleton::searchPath(), ElementsAre("/a", "/b"));
   pathIs("");
   EXPECT_TRUE(Singleton::searchPath().empty()) << "an empty path is no plug-ins, not the default";
}

// Verify that with the variable unset the loader searches the plug-in folder that goes with
// its own library: in the build tree, the build's plug-ins, found and opened with no
// environment at all.
TEST_F(LoaderTest, UnsetPathMeansThePluginFolderOfThisLibrary) {
   unsetenv(kPathVariable);
   ASSERT_THAT(Singleton::searchPath(), ElementsAre(Singleton::defaultPluginDir()));
   EXPECT_TRUE(fs::equivalent(Singleton::defaultPluginDir(), kPluginDir))
       << Singleton::defaultPluginDir() << " is not the build's plug-in folder " << kPluginDir;
   EXPECT_EQ(loader_.load(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix, rec_), 1u);
   EXPECT_THAT(rec_.names(), ElementsAre("plugin util"));
}

// Verify that a library folder other than the build tree's (an installation, wherever its
// prefix was moved) has its plug-ins in its own velmar_mcast/plugins folder, and that the
// build tree's folder is recognised however it is spelled.
TEST_F(LoaderTest, InstalledPluginFolderIsBesideTheLibrary) {
   EXPECT_EQ(Singleton::pluginDirBeside("/opt/velmar/lib"), "/opt/velmar/lib/velmar_mcast/plugins");
   EXPECT_EQ(Singleton::pluginDirBeside("/usr/lib/x86_64-linux-gnu/"),
             "/usr/lib/x86_64-linux-gnu/velmar_mcast/plugins");
   const fs::path buildLib = fs::path(kPluginDir).parent_path() / "lib";
   for (const fs::path& spelling : {buildLib, buildLib / ".", buildLib / ".." / "lib"}) {
      EXPECT_TRUE(fs::equivalent(Singleton::pluginDirBeside(spelling.string()), kPluginDir))
          << spelling;
   }
}

// Verify that a shared object without the init symbol is refused with its file and the
// dynamic linker's reason, registers nothing, and is reported again by later loads.
TEST_F(LoaderTest, PluginWithoutInitSymbolIsRefused) {
   for (int attempt = 0; attempt < 2; ++attempt) {
      try {
         loader_.load("LoaderTestNoInit", "Any::Util", rec_);
         FAIL() << "attempt " << attempt << ": a plug-in without init was accepted";
      } catch (const std::runtime_error& e) {
         EXPECT_THAT(e.what(), AllOf(HasSubstr("LoaderTestNoInit/ancillary_test_noinit.so"),
                                     HasSubstr("undefined symbol: velmarPluginInit")))
             << "attempt " << attempt;
      }
   }
   EXPECT_TRUE(rec_.utils.empty());
   EXPECT_TRUE(loader_.plugins().empty());
}

// Verify that a file that does not open is reported with its name and the reason, while
// the good plug-ins of the same prefix are still opened and their objects handed over.
TEST_F(LoaderTest, BrokenFileDoesNotStopGoodPlugins) {
   const fs::path broken = tmp() / AncillaryTest::kPrefix / "broken.so";
   fs::create_directories(broken.parent_path());
   std::ofstream(broken) << "not an ELF file\n";
   std::ofstream(tmp() / AncillaryTest::kPrefix / "README") << "ignored: not a .so\n";
   pathIs(tmp().string() + ":" + kPluginDir);

   try {
      loader_.load(AncillaryTest::kPrefix, AncillaryTest::kUtilSuffix, rec_);
      FAIL() << "a broken plug-in file was accepted";
   } catch (const std::runtime_error& e) {
      const std::string what = e.what();
      EXPECT_THAT(what, HasSubstr("plug-in " + fs::canonical(broken).string() + ": "));
      EXPECT_THAT(what, AllOf(HasSubstr("1 plug-in(s) under 'LoaderTest' failed"),
                              Not(HasSubstr("README"))));
   }
   EXPECT_THAT(rec_.names(), ElementsAre("plugin util"));
   EXPECT_THAT(loader_.plugins(), SizeIs(1));
}

// Verify in-process factories: handed over in registration order, declining ones skipped,
// no plug-in needed; bad registrations are refused with what was wrong.
TEST_F(LoaderTest, InProcessFactories) {
   unsetenv(kPathVariable);
   loader_.factoryIs("Static", "S::Util", [] { return Asic::makePtr<Named>("first"); });
   loader_.factoryIs("Static", "S::Util", [] { return Object(); });
   loader_.factoryIs("Static", "S::Util", [] { return Asic::makePtr<Named>("second"); });
   loader_.factoryIs("Static", "S::Other", [] { return Asic::makePtr<Named>("other"); });

   EXPECT_EQ(loader_.load("Static", "S::Util", rec_), 2u);
   ASSERT_THAT(rec_.utils, SizeIs(2));
   EXPECT_EQ(static_cast<Named&>(*rec_.utils[0]).name, "first");
   EXPECT_EQ(static_cast<Named&>(*rec_.utils[1]).name, "second");
   EXPECT_EQ(loader_.load("Other", "S::Util", rec_), 0u) << "the prefix is part of the key";

   EXPECT_THROW(loader_.factoryIs("Static", "S::Util", nullptr), std::invalid_argument);
   try {
      loader_.factoryIs("", "S::Util", [] { return Object(); });
      FAIL() << "an empty prefix was accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), HasSubstr("empty prefix"));
   }
   EXPECT_THROW(loader_.load("Static", "", rec_), std::invalid_argument);
   EXPECT_EQ(loader_.factories("Static", "S::Util"), 3u);
}

// Verify that a factory may itself load (as a Util that needs another Util would) without
// deadlocking the loader.
TEST_F(LoaderTest, FactoryMayLoadAgain) {
   RecordingLoader inner;
   loader_.factoryIs("Static", "Inner", [] { return Asic::makePtr<Named>("inner"); });
   loader_.factoryIs("Static", "Outer", [&] {
      loader_.load("Static", "Inner", inner);
      return Asic::makePtr<Named>("outer");
   });
   EXPECT_EQ(loader_.load("Static", "Outer", rec_), 1u);
   EXPECT_THAT(inner.utils, SizeIs(1));
}

// Verify that a typed loader passes on objects of its type and refuses others, naming both
// types.
TEST_F(LoaderTest, TypedLoaderChecksTheType) {
   struct NamedLoader : TypedUtilLoader<Named> {
      void typedUtilIs(Asic::Ptr<Named> util) override { names.push_back(util->name); }
      std::vector<std::string> names;
   } typed;
   loader_.factoryIs("Static", "Good", [] { return Asic::makePtr<Named>("good"); });
   loader_.factoryIs("Static", "Bad", [] { return Asic::makePtr<Other>(); });
   loader_.load("Static", "Good", typed);
   EXPECT_THAT(typed.names, ElementsAre("good"));
   try {
      loader_.load("Static", "Bad", typed);
      FAIL() << "an object of the wrong type was accepted";
   } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr("Other"), HasSubstr("is not a "), HasSubstr("Named")));
   }
   EXPECT_THAT(typed.names, SizeIs(1));
}

}  // namespace
}  // namespace Ancillary::Core::Loader
