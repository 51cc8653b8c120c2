#include "VelmarL3Common/L3IpmcKey.h"

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Asic/IndexAllocator.h"
#include "Asic/TypeRegistry.h"
#include "VelmarL3Common/L3IpmcSharedAllocator.h"

namespace VelmarL3Common {
namespace {

using ::testing::HasSubstr;

struct TextCase {
   L3IpmcKey key;
   std::string text;
};

class L3IpmcKeyTextTest : public ::testing::TestWithParam<TextCase> {};

INSTANTIATE_TEST_SUITE_P(
    Keys, L3IpmcKeyTextTest,
    ::testing::Values(TextCase{{0xEF010101u, 0}, "L3IpmcKey(group=239.1.1.1, vrf=0)"},
                      TextCase{{0xE0000001u, 42}, "L3IpmcKey(group=224.0.0.1, vrf=42)"},
                      TextCase{{0, 0}, "L3IpmcKey(group=0.0.0.0, vrf=0)"},
                      TextCase{{0xFFFFFFFFu, 0xFFFFFFFFu},
                               "L3IpmcKey(group=255.255.255.255, vrf=4294967295)"}));

// Verify the text form, and that parsing it gives the key back.
TEST_P(L3IpmcKeyTextTest, FormatsAndParsesBack) {
   const auto& [key, text] = GetParam();
   EXPECT_EQ(fmt::format("{}", key), text);
   EXPECT_EQ(parseL3IpmcKey(text), key);
}

struct BadText {
   std::string text;
   std::string complaint;
};

class L3IpmcKeyParseErrorTest : public ::testing::TestWithParam<BadText> {};

INSTANTIATE_TEST_SUITE_P(
    Texts, L3IpmcKeyParseErrorTest,
    ::testing::Values(
        BadText{"", "expected 'L3IpmcKey(' at the start"},
        BadText{"Key(group=1.2.3.4, vrf=0)", "expected 'L3IpmcKey(' at the start"},
        BadText{"L3IpmcKey(vrf=0, group=1.2.3.4)", "expected 'group='"},
        BadText{"L3IpmcKey(group=239.1.1, vrf=0)", "group '239.1.1' is not a dotted IPv4"},
        BadText{"L3IpmcKey(group=239.1.1.256, vrf=0)", "group '239.1.1.256' is not a dotted"},
        BadText{"L3IpmcKey(group=239.1.1.1 vrf=0)", "expected ',' after the group"},
        BadText{"L3IpmcKey(group=239.1.1.1, vrf=-1)", "vrf '-1' is not a 32-bit unsigned"},
        BadText{"L3IpmcKey(group=239.1.1.1, vrf=4294967296)", "vrf '4294967296' is not"},
        BadText{"L3IpmcKey(group=239.1.1.1, vrf=0", "expected ')' after the vrf"},
        BadText{"L3IpmcKey(group=239.1.1.1, vrf=0) x", "unexpected 'x' after the key"}));

// Verify that each malformed text is refused with a message naming the bad part and the
// whole text.
TEST_P(L3IpmcKeyParseErrorTest, NamesTheBadPart) {
   const auto& [text, complaint] = GetParam();
   try {
      parseL3IpmcKey(text);
      FAIL() << "'" << text << "' was accepted";
   } catch (const std::invalid_argument& e) {
      EXPECT_THAT(e.what(), HasSubstr(complaint));
      EXPECT_THAT(e.what(), HasSubstr("bad L3IpmcKey '" + text + "'"));
   }
}

// Verify that the hash depends on the seed and on which word holds which value, and that
// consecutive groups spread over the low bits that hash maps use for buckets.
TEST(L3IpmcKeyTest, HashMixesBothWordsAndSeed) {
   const L3IpmcKey key{0xEF000001u, 7};
   EXPECT_EQ(key.hash(1), L3IpmcKey(key).hash(1));
   EXPECT_NE(key.hash(1), key.hash(2));
   EXPECT_NE(key.hash(0), (L3IpmcKey{7, 0xEF000001u}.hash(0)));
   EXPECT_NE(key.hash(0), (L3IpmcKey{0xEF000001u, 8}.hash(0)));

   std::set<std::uint32_t> hashes;
   std::vector<int> buckets(64, 0);
   for (std::uint32_t i = 0; i < 6400; ++i) {
      std::uint32_t h = L3IpmcKey{0xEF000000u + i, 0}.hash(0);
      hashes.insert(h);
      ++buckets[h & 63];
   }
   EXPECT_EQ(hashes.size(), 6400u) << "no collisions among consecutive groups";
   for (int b = 0; b < 64; ++b) {
      EXPECT_GT(buckets[b], 50) << "bucket " << b;
      EXPECT_LT(buckets[b], 150) << "bucket " << b;
   }
}

// Verify that the key type is registered at load, and that an allocator stores and gives
// back the key through its descriptor.
TEST(L3IpmcKeyTest, RegisteredAndUsableAsAllocatorKey) {
   registerL3IpmcKeyType();  // idempotent
   EXPECT_EQ(Asic::TypeRegistry::find(L3IpmcKey::kTypeName), &Asic::vixType<L3IpmcKey>());

   auto alloc = Asic::makePtr<Asic::FirstFreeIndexAllocator>("keys");
   alloc->numEntriesIs(4);
   const L3IpmcKey key{0xEF010101u, 3};
   const auto& type = *Asic::TypeRegistry::find(L3IpmcKey::kTypeName);
   const Asic::Index index = alloc->newIndexForKey(type, &key);
   const Asic::GenericValue back = alloc->keyForIndex(index, type);
   ASSERT_NE(back.get<L3IpmcKey>(), nullptr);
   EXPECT_EQ(*back.get<L3IpmcKey>(), key);
   EXPECT_EQ(back.toString(), "L3IpmcKey(group=239.1.1.1, vrf=3)");
}

// Verify that the shared-allocator factory knows the IPMC allocator at load and hands one
// lowest-first allocator to every table.
TEST(L3IpmcSharedAllocatorTest, FactoryRegisteredAtLoad) {
   registerL3IpmcSharedAllocator();  // idempotent
   int remap = 0, other = 0;
   using Stub = Asic::GenericIndexAllocatorStub;
   auto shared = Stub::createSharedAllocator(L3IpmcSharedAllocator::kTypeName,
                                             "VelmarMcast::IngIpmcRemapTable", &remap);
   ASSERT_NE(shared, nullptr);
   EXPECT_EQ(shared->allocatorTypeName(), L3IpmcSharedAllocator::kTypeName);
   EXPECT_NE(dynamic_cast<L3IpmcSharedAllocator*>(shared.get()), nullptr);
   EXPECT_EQ(Stub::createSharedAllocator(L3IpmcSharedAllocator::kTypeName, "Other", &other),
             shared);

   shared->numEntriesIs(8);
   shared->reserveIndices(0, 0);
   const L3IpmcKey key{0xEF000001u, 0};
   EXPECT_EQ(shared->newIndexForKey(Asic::vixType<L3IpmcKey>(), &key), 1u);

   Stub::freeSharedAllocator(L3IpmcSharedAllocator::kTypeName, "Other", &other);
   Stub::freeSharedAllocator(L3IpmcSharedAllocator::kTypeName, "VelmarMcast::IngIpmcRemapTable",
                             &remap);
   EXPECT_EQ(Stub::sharedAllocator(L3IpmcSharedAllocator::kTypeName), nullptr);
}

}  // namespace
}  // namespace VelmarL3Common
