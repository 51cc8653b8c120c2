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
   template <typename H>
   friend H AbslHashValue(H h, const WideKey& k) {
      return H::combine(std::move(h), k.words[0], k.words[3]);
   }
   static WideKey sample(int i) { return {{std::uint64_t(i), 2, 3, std::uint64_t(i) * 7}}; }
};

// Same name as SmallKey, different type: registering it must be refused.
struct Impostor {
   static constexpr std::string_view kTypeName = "AsicTest::SmallKey";
   int v = 0;
   friend bool operator==(const Impostor&, const Impostor&) = default;
   template <typename H>
   friend H AbslHashValue(H h, const Impostor& k) {
      return H::combine(std::move(h), k.v);
   }
};

}  // namespace AsicTest

template <>
struct fmt::formatter<AsicTest::SmallKey> : fmt::formatter<std::string_view> {
   auto format(const AsicTest::SmallKey& k, format_context& ctx) const {
      return fmt::format_to(ctx.out(), "{}@{}", k.index, k.unit);
   }
};
template <>
struct fmt::formatter<AsicTest::NamedKey> : fmt::formatter<std::string_view> {
   auto format(const AsicTest::NamedKey& k, format_context& ctx) const {
      return fmt::format_to(ctx.out(), "{}:{}", k.id, k.name.size());
   }
};
template <>
struct fmt::formatter<AsicTest::WideKey> : fmt::formatter<std::string_view> {
   auto format(const AsicTest::WideKey& k, format_context& ctx) const {
      return fmt::format_to(ctx.out(), "wide{}", k.words[0]);
   }
};
template <>
struct fmt::formatter<AsicTest::Impostor> : fmt::formatter<std::string_view> {
   auto format(const AsicTest::Impostor& k, format_context& ctx) const {
      return fmt::format_to(ctx.out(), "{}", k.v);
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

// Verify that a copy is equal, independent of the original, and properly aligned.
TYPED_TEST(GenericValueTest, CopyIsEqualAndIndependent) {
   const TypeParam key = TypeParam::sample(1);
   GenericValue copy;
   {
      GenericValue original = GenericValue::of(key);
      ASSERT_NE(original.get<TypeParam>(), nullptr);
      EXPECT_EQ(*original.get<TypeParam>(), key);
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

// Verify copy-assignment across storage kinds in both directions.
TYPED_TEST(GenericValueTest, AssignAcrossStorageKinds) {
   using O = Other<TypeParam>;
   GenericValue v = GenericValue::of(O::sample(4));
   v = GenericValue::of(TypeParam::sample(5));
   EXPECT_EQ(v.get<O>(), nullptr);
   EXPECT_EQ(*v.get<TypeParam>(), TypeParam::sample(5));
   GenericValue back = GenericValue::of(O::sample(6));
   v = back;
   EXPECT_EQ(v.get<TypeParam>(), nullptr);
   EXPECT_EQ(*v.get<O>(), O::sample(6));
}

// Verify equality and hashing: equal values hash alike and are found in a hash set;
// different values or different types are unequal.
TYPED_TEST(GenericValueTest, EqualityAndHash) {
   GenericValue a = GenericValue::of(TypeParam::sample(7));
   GenericValue b = GenericValue::of(TypeParam::sample(7));
   GenericValue c = GenericValue::of(TypeParam::sample(8));
   EXPECT_EQ(a, b);
   EXPECT_FALSE(a == c);
   EXPECT_FALSE(a == GenericValue());
   EXPECT_FALSE(a == GenericValue::of(Other<TypeParam>::sample(7)));
   EXPECT_EQ(absl::Hash<GenericValue>{}(a), absl::Hash<GenericValue>{}(b));

   absl::flat_hash_set<GenericValue> set{a, c};
   EXPECT_TRUE(set.contains(b));
   EXPECT_FALSE(set.contains(GenericValue::of(TypeParam::sample(9))));
}

// Verify that get<T>() of another type is null and that an empty value reads as empty.
TEST(GenericValueTest, WrongTypeAndEmpty) {
   GenericValue v = GenericValue::of(SmallKey::sample(1));
   EXPECT_EQ(v.get<NamedKey>(), nullptr);
   EXPECT_EQ(v.get<WideKey>(), nullptr);
   EXPECT_FALSE(v.is(vixType<NamedKey>(), nullptr));
   EXPECT_EQ(v.toString(), "101@1");

   GenericValue empty;
   EXPECT_TRUE(empty.empty());
   EXPECT_FALSE(static_cast<bool>(empty));
   EXPECT_EQ(empty.type(), nullptr);
   EXPECT_EQ(empty.get<SmallKey>(), nullptr);
   EXPECT_EQ(empty.toString(), "<none>");
   EXPECT_EQ(empty, GenericValue());
   EXPECT_EQ(absl::Hash<GenericValue>{}(empty), absl::Hash<GenericValue>{}(GenericValue()));
}

// Verify registration: found by name, idempotent for the same type, and a different type
// under a taken name is refused with the name in the error.
TEST(TypeRegistryTest, RegisterFindAndRefuseImpostor) {
   const TypeDescriptor& small = TypeRegistry::registerType<SmallKey>();
   EXPECT_EQ(&small, &vixType<SmallKey>());
   std::size_t size = TypeRegistry::size();
   EXPECT_EQ(&TypeRegistry::registerType<SmallKey>(), &small);
   EXPECT_EQ(TypeRegistry::size(), size) << "registering again must not add";
   EXPECT_EQ(TypeRegistry::find("AsicTest::SmallKey"), &small);
   EXPECT_EQ(TypeRegistry::find("AsicTest::NoSuchKey"), nullptr);
   EXPECT_EQ(small.name, "AsicTest::SmallKey");
   EXPECT_EQ(small.size, sizeof(SmallKey));

   try {
      TypeRegistry::registerType<AsicTest::Impostor>();
      FAIL() << "a second descriptor under a taken name was accepted";
   } catch (const std::logic_error& e) {
      EXPECT_THAT(e.what(), ::testing::HasSubstr("'AsicTest::SmallKey'"));
   }
   EXPECT_EQ(TypeRegistry::find("AsicTest::SmallKey"), &small) << "the first one must stay";

   // A value built from a descriptor found by name is the same as one built from the type.
   SmallKey key = SmallKey::sample(3);
   EXPECT_EQ(GenericValue(*TypeRegistry::find("AsicTest::SmallKey"), &key), GenericValue::of(key));
}

}  // namespace
}  // namespace Asic
