#include "Asic/TypeRegistry.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace AsicTest {

// Fits the inline buffer; hashed through AbslHashValue.
struct SmallKey {
   static constexpr std::string_view kTypeName = "AsicTest::SmallKey";
   std::uint32_t index = 0;
   std::uint16_t unit = 0;
   friend bool operator==(const SmallKey&, const SmallKey&) = default;
   template <typename H>
   friend H AbslHashValue(H h, const SmallKey& k) {
      return H::combine(std::move(h), k.index, k.unit);
   }
   std::string text() const { return fmt::format("{}@{}", index, unit); }
   static SmallKey sample(int i) { return {std::uint32_t(100 + i), std::uint16_t(i)}; }
};

// Larger than the inline buffer and owns heap memory: leaks or double frees show under
// AddressSanitizer. Hashed through a member.
struct NamedKey {
   static constexpr std::string_view kTypeName = "AsicTest::NamedKey";
   std::string name;
   std::uint64_t id = 0;
   friend bool operator==(const NamedKey&, const NamedKey&) = default;
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(name, id, seed); }
   std::string text() const { return fmt::format("{}:{}", id, name.size()); }
   static NamedKey sample(int i) {
      return {"a name long enough to live outside the small-string buffer #" + std::to_string(i),
              std::uint64_t(i)};
   }
};

// Over-aligned: must go to the heap with its alignment honoured.
struct alignas(32) WideKey {
   static constexpr std::string_view kTypeName = "AsicTest::WideKey";
   std::uint64_t words[4] = {};
   friend bool operator==(const WideKey&, const WideKey&) = default;
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(words[0], words[3], seed); }
   std::string text() const { return fmt::format("wide{}", words[0]); }
   static WideKey sample(int i) { return {{std::uint64_t(i), 2, 3, std::uint64_t(i) * 7}}; }
};

// Same name as SmallKey, different type: registering it must be refused.
struct Impostor {
   static constexpr std::string_view kTypeName = "AsicTest::SmallKey";
   int v = 0;
   friend bool operator==(const Impostor&, const Impostor&) = default;
   std::size_t hash(std::uint32_t seed) const { return absl::HashOf(v, seed); }
   std::string text() const { return std::to_string(v); }
};

// The keys of this file; they print through their text().
template <typename T>
concept Key = (T::kTypeName.starts_with("AsicTest::"));

}  // namespace AsicTest

template <AsicTest::Key T>
struct fmt::formatter<T> : fmt::formatter<std::string> {
   auto format(const T& k, format_context& ctx) const {
      return fmt::formatter<std::string>::format(k.text(), ctx);
   }
};

namespace Asic {
namespace {

using AsicTest::NamedKey;
using AsicTest::SmallKey;
using AsicTest::WideKey;

// The other types of the suite, to mix storage kinds in assignments.
template <typename T>
using Other = std::conditional_t<std::is_same_v<T, SmallKey>, NamedKey, SmallKey>;

template <typename T>
class GenericValueTest : public ::testing::Test {};
using KeyTypes = ::testing::Types<SmallKey, NamedKey, WideKey>;
TYPED_TEST_SUITE(GenericValueTest, KeyTypes);

// Verify that a copy is equal, independent of the original, and properly aligned, also
// when assigned over a value of the other storage kind.
TYPED_TEST(GenericValueTest, CopyIsEqualAndIndependent) {
   const TypeParam key = TypeParam::sample(1);
   GenericValue copy = GenericValue::of(Other<TypeParam>::sample(4));
   {
      GenericValue original = GenericValue::of(key);
      EXPECT_NE(original.data(), &key) << "the value must own a copy";
      copy = original;
      EXPECT_EQ(copy, original);
      EXPECT_NE(copy.data(), original.data());
   }
   ASSERT_NE(copy.get<TypeParam>(), nullptr) << "copy lost its value with the original";
   EXPECT_EQ(*copy.get<TypeParam>(), key);
   EXPECT_EQ(reinterpret_cast<std::uintptr_t>(copy.data()) % alignof(TypeParam), 0u);
   EXPECT_TRUE(copy.is(vixType<TypeParam>(), &key));
   EXPECT_EQ(copy.toString(), fmt::format("{}", key));

   GenericValue& self = copy;
   copy = self;
   EXPECT_EQ(*copy.get<TypeParam>(), key) << "self-assignment lost the value";
}

// Verify that moving transfers the value and leaves the source empty, for construction
// and for assignment over a value of either storage kind.
TYPED_TEST(GenericValueTest, MoveTransfersAndEmptiesSource) {
   const TypeParam key = TypeParam::sample(2);
   GenericValue source = GenericValue::of(key);
   GenericValue moved(std::move(source));
   EXPECT_TRUE(source.empty());  // NOLINT(bugprone-use-after-move): documented state
   EXPECT_EQ(*moved.get<TypeParam>(), key);

   GenericValue target = GenericValue::of(Other<TypeParam>::sample(3));
   target = std::move(moved);
   EXPECT_TRUE(moved.empty());  // NOLINT(bugprone-use-after-move)
   ASSERT_NE(target.get<TypeParam>(), nullptr);
   EXPECT_EQ(*target.get<TypeParam>(), key);

   GenericValue& self = target;
   target = std::move(self);
   ASSERT_NE(target.get<TypeParam>(), nullptr) << "self-move lost the value";
   EXPECT_EQ(*target.get<TypeParam>(), key);
}

// Verify equality and hashing: equal values hash alike and are found in a hash set;
// different values or different types are unequal, and get<T>() of another type is null.
TYPED_TEST(GenericValueTest, EqualityAndHash) {
   GenericValue a = GenericValue::of(TypeParam::sample(7));
   GenericValue b = GenericValue::of(TypeParam::sample(7));
   GenericValue c = GenericValue::of(TypeParam::sample(8));
   EXPECT_EQ(a, b);
   EXPECT_FALSE(a == c);
   EXPECT_FALSE(a == GenericValue());
   EXPECT_FALSE(a == GenericValue::of(Other<TypeParam>::sample(7)));
   EXPECT_EQ(a.get<Other<TypeParam>>(), nullptr);
   EXPECT_FALSE(a.is(vixType<Other<TypeParam>>(), nullptr));
   EXPECT_EQ(absl::Hash<GenericValue>{}(a), absl::Hash<GenericValue>{}(b));

   absl::flat_hash_set<GenericValue> set{a, c};
   EXPECT_TRUE(set.contains(b));
   EXPECT_FALSE(set.contains(GenericValue::of(TypeParam::sample(9))));
}

// Verify that an empty value prints as such and equals (and hashes as) another empty one.
TEST(GenericValueTest, EmptyValue) {
   GenericValue empty;
   EXPECT_EQ(empty.get<SmallKey>(), nullptr);
   EXPECT_EQ(empty.toString(), "<none>");
   EXPECT_EQ(empty, GenericValue());
   EXPECT_EQ(absl::Hash<GenericValue>{}(empty), absl::Hash<GenericValue>{}(GenericValue()));
}

// Verify registration: found by name, idempotent for the same type, and a different type
// under a taken name is refused with the name in the error.
TEST(TypeRegistryTest, RegisterFindAndRefuseImpostor) {
   const TypeDescriptor& small = TypeRegistry::registerType<SmallKey>();
   std::size_t size = TypeRegistry::size();
   EXPECT_EQ(&TypeRegistry::registerType<SmallKey>(), &small);
   EXPECT_EQ(TypeRegistry::size(), size) << "registering again must not add";
   EXPECT_EQ(TypeRegistry::find("AsicTest::NoSuchKey"), nullptr);

   try {
      TypeRegistry::registerType<AsicTest::Impostor>();
      FAIL() << "a second descriptor under a taken name was accepted";
   } catch (const std::logic_error& e) {
      EXPECT_THAT(e.what(), ::testing::HasSubstr("'AsicTest::SmallKey'"));
   }
   EXPECT_EQ(TypeRegistry::find("AsicTest::SmallKey"), &small) << "found by name, the first one";
}

}  // namespace
}  // namespace Asic
