#include "simulator/fltlib/pipe_procedure.h"

#include <gtest/gtest.h>

#include <array>
#include <string_view>

namespace zel::sim {
namespace {

// One element and its pipe, behind two bytes that are no type.
constexpr unsigned char kTypes[] = {0, 0, 0x01, 0x5C, 0xB5, 0, 0xFC, 0xFF, 1, 0, 1, 0};

// Operation 3: [in] hyper, [in] unsigned short, [in] long, [out] pipe of byte, error status.
constexpr std::array<unsigned char, 60> kProcedure = {
    0x00, 0x48, 0,  0, 0,    0,              // explicit handle
    3,    0,    48, 0,                       // number, stack
    0x32, 0,    0,  0,                       // binding handle
    16,   0,    8,  0, 0x4C, 5,              // buffers, flags, parameters
    0x0A, 0x01, 0,  0, 0,    0, 0, 0, 0, 0,  // extension
    0x48, 0x00, 8,  0, 0x0B, 0,              // hyper
    0x48, 0x00, 16, 0, 0x07, 0,              // unsigned short
    0x48, 0x00, 24, 0, 0x08, 0,              // long
    0x14, 0x81, 32, 0, 4,    0,              // pipe
    0x70, 0x00, 40, 0, 0x10, 0,              // error status
};

std::optional<PipeProcedure> Read(const std::array<unsigned char, 60>& procedure) {
  return ReadPipeProcedure(procedure.data(), kTypes, 3);
}

std::vector<std::byte> Bytes(std::string_view text) {
  const auto* const first = reinterpret_cast<const std::byte*>(text.data());
  return {first, first + text.size()};
}

TEST(PipeProcedureTest, DescriptionSaysWhereEverythingIs) {
  EXPECT_TRUE(HasPipes(kProcedure.data()));
  const std::optional<PipeProcedure> procedure = Read(kProcedure);
  ASSERT_TRUE(procedure);
  EXPECT_EQ(procedure->handle_slot, 0u);
  EXPECT_EQ(procedure->pipe_slot, 4u);
  ASSERT_EQ(procedure->inputs.size(), 3u);
  EXPECT_EQ(procedure->inputs[0].slot, 1u);
  EXPECT_EQ(procedure->inputs[0].size, 8u);
  EXPECT_EQ(procedure->inputs[1].size, 2u);
  EXPECT_EQ(procedure->inputs[2].size, 4u);
}

TEST(PipeProcedureTest, ProcedureWithoutTheFlagHasNoPipes) {
  auto procedure = kProcedure;
  procedure[18] = 0x44;
  EXPECT_FALSE(HasPipes(procedure.data()));
}

TEST(PipeProcedureTest, EveryContradictionIsRefused) {
  struct Change {
    std::size_t at;
    unsigned char value;
  };
  constexpr Change kChanges[] = {
      {1, 0x08},   // not the modern initialisation
      {6, 4},      // another number
      {8, 40},     // a stack that is too small
      {10, 0x31},  // another kind of handle
      {12, 8},     // the handle elsewhere
      {18, 0x48},  // no return value
      {18, 0x0C},  // no extension
      {19, 4},     // a parameter less than the stack has
      {30, 0x58},  // [in, out]
      {30, 0x0A},  // no base type
      {32, 16},    // a parameter on another's place
      {34, 0x22},  // a base type that there is not
      {48, 0x1C},  // [in, out] pipe
      {49, 0x80},  // the pipe not by reference
      {52, 2},     // no pipe type
      {54, 0x50},  // no return value at the end
      {58, 0x0B},  // a return value of 8 bytes
  };
  for (const auto& [at, value] : kChanges) {
    auto procedure = kProcedure;
    procedure[at] = value;
    EXPECT_FALSE(Read(procedure)) << at;
  }
}

TEST(PipeProcedureTest, OnlyPipesOfBytesAreCovered) {
  struct Change {
    std::size_t at;
    unsigned char value;
  };
  for (const auto& [at, value] :
       {Change{2, 0x08}, Change{3, 0x5B}, Change{5, 1}, Change{8, 2}, Change{10, 2}}) {
    unsigned char types[sizeof kTypes];
    std::copy(std::begin(kTypes), std::end(kTypes), types);
    types[at] = value;
    EXPECT_FALSE(ReadPipeProcedure(kProcedure.data(), types, 3)) << at;
  }
}

TEST(PipeProcedureTest, InputsAreAlignedOnTheWire) {
  using namespace std::string_view_literals;
  const std::vector<std::byte> request =
      Bytes("\x01\x02\x03\x04\x05\x06\x07\x08\xFE\xFF\x99\x99\x0A\x00\x00\x80"sv);
  Slots slots = {};
  EXPECT_TRUE(ReadInputs(*Read(kProcedure), request, slots));
  EXPECT_EQ(slots[1], 0x0807060504030201u);
  EXPECT_EQ(slots[2], 0xFFFEu);
  EXPECT_EQ(slots[3], 0x8000000Au);
}

TEST(PipeProcedureTest, RequestIsWrittenAsItIsRead) {
  using namespace std::string_view_literals;
  const Slots slots = {77, 0x0807060504030201, 0xFFFFFFFFFFFFFFFE, 0x8000000A};
  EXPECT_EQ(WriteInputs(*Read(kProcedure), slots),
            Bytes("\x01\x02\x03\x04\x05\x06\x07\x08\xFE\xFF\0\0\x0A\x00\x00\x80"sv));
}

TEST(PipeProcedureTest, SlotsAreTheHandleAndTheParametersWithoutTheReturnValue) {
  EXPECT_EQ(OperationNumber(kProcedure.data()), 3u);
  EXPECT_EQ(CountSlots(kProcedure.data()), 5u);
  auto without_return = kProcedure;
  without_return[18] = 0x48;
  EXPECT_EQ(CountSlots(without_return.data()), 6u);
}

TEST(PipeProcedureTest, RequestThatIsTooShortIsRefused) {
  const std::vector<std::byte> request(16);
  Slots slots = {};
  for (std::size_t size = 0; size < request.size(); ++size) {
    EXPECT_FALSE(ReadInputs(*Read(kProcedure), std::span(request).first(size), slots)) << size;
  }
}

TEST(SimulatedPipeResponseTest, ChunksAndReturnValueAreAligned) {
  using namespace std::string_view_literals;
  PipeResponse response;
  EXPECT_TRUE(response.Push(Bytes("abcde")));
  EXPECT_TRUE(response.Push(Bytes("f")));
  EXPECT_FALSE(response.ended());
  EXPECT_TRUE(response.Push({}));
  EXPECT_TRUE(response.ended());
  response.Return(0x04030201);
  EXPECT_EQ(response.bytes(), Bytes("\5\0\0\0abcde\0\0\0\1\0\0\0f\0\0\0\0\0\0\0\1\2\3\4"sv));
}

TEST(SimulatedPipeResponseTest, NothingIsPushedBehindTheEnd) {
  PipeResponse response;
  EXPECT_TRUE(response.Push({}));
  EXPECT_FALSE(response.Push(Bytes("a")));
  EXPECT_FALSE(response.Push({}));
}

}  // namespace
}  // namespace zel::sim
