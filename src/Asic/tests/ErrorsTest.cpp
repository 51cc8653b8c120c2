// Errors.h first: it must compile on its own.
#include "Asic/Errors.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace Asic {
namespace {

std::string castFailure(auto fn) {
   try {
      fn();
   } catch (const std::range_error& e) {
      return e.what();
   }
   return "<no exception>";
}

// Verify the exact text of a failed narrowing, which names both compiler type spellings,
// the value and the limit.
TEST(ErrorsTest, CastIntegralNamesTypesValueAndMax) {
   EXPECT_EQ(castFailure([] { castIntegral<std::uint16_t>(std::uint32_t{65536}); }),
             "Casting values: cast from unsigned int{ 65536 } to short unsigned int "
             "(max = 65535) failed.");
   EXPECT_EQ(castFailure([] { castIntegral<std::uint8_t>(std::uint64_t{300}); }),
             "Casting values: cast from long unsigned int{ 300 } to unsigned char "
             "(max = 255) failed.");
}

// Verify the boundaries: the maximum passes, one past it throws, and a narrower field
// limit is honoured.
TEST(ErrorsTest, CastIntegralBoundaries) {
   EXPECT_EQ(castIntegral<std::uint16_t>(std::uint32_t{65535}), 65535);
   EXPECT_EQ(castIntegral<std::uint16_t>(std::uint32_t{0}), 0);
   EXPECT_THROW(castIntegral<std::uint16_t>(std::uint32_t{65536}), std::range_error);

   EXPECT_EQ(castIntegral<std::uint8_t>(std::uint32_t{7}, std::uint8_t{7}), 7);
   EXPECT_EQ(castFailure([] { castIntegral<std::uint8_t>(std::uint32_t{8}, std::uint8_t{7}); }),
             "Casting values: cast from unsigned int{ 8 } to unsigned char (max = 7) failed.");
}

// Verify that the double-callback error is its own type and still a logic_error.
TEST(ErrorsTest, CallbackExceptionIsNamedLogicError) {
   EXPECT_THROW(raise_callback_exception(), CallbackException);
   EXPECT_THROW(raise_callback_exception(), std::logic_error);
   try {
      raise_callback_exception();
   } catch (const CallbackException& e) {
      EXPECT_NE(std::string(e.what()).find("both"), std::string::npos) << e.what();
   }
}

}  // namespace
}  // namespace Asic
