#include "ml/data/Tensor.h"

#include "ml/data/TensorSet.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <sstream>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

// A tensor of `type` and `shape` whose bytes are 0, 1, 2, ... (wrapping), so that every element
// differs from its neighbours and a shifted or truncated copy is caught.
Tensor patternTensor(Tensor::Type type, Tensor::Shape shape)
{
    Tensor probe(shape, type, nullptr);
    std::vector<std::uint8_t> bytes(probe.byteSize());
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
    return Tensor(std::move(shape), type, bytes.data());
}

struct TypeCase
{
    Tensor::Type type;
    std::uint32_t tag;
    std::size_t elementBytes;
};

class TensorTypeTest : public ::testing::TestWithParam<TypeCase>
{};

} // namespace

TEST_P(TensorTypeTest, TagsAndElementSizesAreFixed)
{
    TypeCase const c = GetParam();
    EXPECT_EQ(static_cast<std::uint32_t>(c.type), c.tag);
    Tensor tensor({2, 3}, c.type, nullptr);
    EXPECT_EQ(tensor.elementByteSize(), c.elementBytes);
    EXPECT_EQ(tensor.byteSize(), 6 * c.elementBytes);
    EXPECT_EQ(tensor.buffer64Size(), (6 * c.elementBytes + 7) / 8);
}

TEST_P(TensorTypeTest, StreamRoundTripKeepsTypeShapeAndBytes)
{
    TypeCase const c = GetParam();
    Tensor const original = patternTensor(c.type, {2, 3, 4});

    std::stringstream stream;
    ASSERT_TRUE(original.serialize(stream));
    // type + order + 3 shape entries + data, no padding.
    EXPECT_EQ(stream.str().size(), 4u + 4u + 3u * 8u + 24u * c.elementBytes);

    Tensor read;
    ASSERT_TRUE(read.deserialize(stream));
    EXPECT_EQ(read.type(), c.type);
    EXPECT_EQ(read.shape(), (Tensor::Shape{2, 3, 4}));
    EXPECT_EQ(read, original);
    EXPECT_EQ(std::memcmp(read.bytePtr(), original.bytePtr(), original.byteSize()), 0);
}

TEST_P(TensorTypeTest, TruncatedStreamFailsAndLeavesTensorUnchanged)
{
    TypeCase const c = GetParam();
    std::stringstream full;
    ASSERT_TRUE(patternTensor(c.type, {5}).serialize(full));
    std::string bytes = full.str();
    bytes.pop_back();
    std::stringstream truncated(bytes);

    float const value = 2.5f;
    Tensor target({1}, &value);
    Tensor const before = target;
    Log::Capture capture;
    EXPECT_FALSE(target.deserialize(truncated));
    EXPECT_TRUE(capture.contains("Failure during deserialization", "ML.Tensor"));
    EXPECT_EQ(target, before);
}

INSTANTIATE_TEST_SUITE_P(AllTypes, TensorTypeTest,
                         ::testing::Values(TypeCase{Tensor::Type::Float, 5126, 4},
                                           TypeCase{Tensor::Type::Int64, 5124, 8},
                                           TypeCase{Tensor::Type::UInt8, 5121, 1}));

TEST(Tensor, SerialisedFloatTensorOfShape2x3Takes48Bytes)
{
    std::vector<float> values{1, 2, 3, 4, 5, 6};
    Tensor tensor({2, 3}, values.data());
    std::ostringstream out;
    ASSERT_TRUE(tensor.serialize(out));
    std::string const bytes = out.str();
    ASSERT_EQ(bytes.size(), 4u + 4u + 16u + 24u);
    std::uint32_t tag = 0;
    std::uint32_t order = 0;
    std::uint64_t second = 0;
    float last = 0;
    std::memcpy(&tag, bytes.data(), 4);
    std::memcpy(&order, bytes.data() + 4, 4);
    std::memcpy(&second, bytes.data() + 16, 8);
    std::memcpy(&last, bytes.data() + 44, 4);
    EXPECT_EQ(tag, 5126u);
    EXPECT_EQ(order, 2u);
    EXPECT_EQ(second, 3u);
    EXPECT_EQ(last, 6.f);
}

TEST(Tensor, SerializeOnFailedStreamWritesNothing)
{
    float const value = 1.f;
    Tensor tensor({1}, &value);
    std::ostringstream out;
    out.setstate(std::ios::failbit);
    EXPECT_FALSE(tensor.serialize(out));
    EXPECT_TRUE(out.str().empty());
}

TEST(Tensor, DeserializeFromFailedStreamLogs)
{
    std::stringstream in("irrelevant");
    in.setstate(std::ios::failbit);
    Tensor tensor;
    Log::Capture capture;
    EXPECT_FALSE(tensor.deserialize(in));
    EXPECT_TRUE(capture.contains("Failure during deserialization", "ML.Tensor"));
    EXPECT_EQ(tensor.numElements(), 0u);
}

TEST(Tensor, DeserializeRefusesUnknownTagAndOverflowingShape)
{
    auto streamOf = [](std::uint32_t tag, std::vector<std::uint64_t> shape) {
        std::string bytes(8 + shape.size() * 8, '\0');
        auto const order = static_cast<std::uint32_t>(shape.size());
        std::memcpy(bytes.data(), &tag, 4);
        std::memcpy(bytes.data() + 4, &order, 4);
        std::memcpy(bytes.data() + 8, shape.data(), shape.size() * 8);
        return std::stringstream(bytes);
    };
    Tensor tensor;
    Log::Capture capture;

    auto unknown = streamOf(5125, {1});
    EXPECT_FALSE(tensor.deserialize(unknown));
    EXPECT_TRUE(capture.contains("Unknown tensor element type 5125 in stream", "ML.Tensor"));

    std::uint64_t const huge = std::uint64_t{1} << 40;
    auto overflow = streamOf(5124, {huge, huge});
    EXPECT_FALSE(tensor.deserialize(overflow));
    EXPECT_TRUE(capture.contains("Tensor of 2 dimensions in stream is too large to be held", "ML.Tensor"));

    // A size that fits but is far beyond the stream's content fails on reading, not by
    // allocating the claimed size up front.
    auto claimsTooMuch = streamOf(5121, {huge});
    EXPECT_FALSE(tensor.deserialize(claimsTooMuch));
    EXPECT_TRUE(capture.contains("Failure during deserialization", "ML.Tensor"));
    EXPECT_EQ(tensor.order(), 0u);
}

TEST(Tensor, EmptyShapeHasZeroElements)
{
    Tensor empty;
    EXPECT_EQ(empty.order(), 0u);
    EXPECT_EQ(empty.numElements(), 0u);
    EXPECT_EQ(empty.byteSize(), 0u);
    EXPECT_EQ(empty.buffer64Size(), 0u);
    float const value = 1.f;
    EXPECT_EQ(Tensor({}, &value).numElements(), 0u);
    EXPECT_EQ(Tensor({3, 0, 2}, &value).numElements(), 0u);
    EXPECT_EQ(Tensor({3, 1, 2}, Tensor::Type::Float, nullptr).numElements(), 6u);
}

TEST(Tensor, Buffer64SizeRoundsBytesUpToWords)
{
    EXPECT_EQ(Tensor({3}, Tensor::Type::Float, nullptr).buffer64Size(), 2u); // 12 bytes
    EXPECT_EQ(Tensor({12}, Tensor::Type::UInt8, nullptr).buffer64Size(), 2u);
    EXPECT_EQ(Tensor({16}, Tensor::Type::UInt8, nullptr).buffer64Size(), 2u);
    EXPECT_EQ(Tensor({17}, Tensor::Type::UInt8, nullptr).buffer64Size(), 3u);
    EXPECT_EQ(Tensor({3}, Tensor::Type::Int64, nullptr).buffer64Size(), 3u);
}

TEST(Tensor, Int64TensorsKeepValuesBeyondThirtyTwoBits)
{
    std::vector<std::int64_t> const values{std::numeric_limits<std::int64_t>::min(), -1, 0,
                                           (std::int64_t{1} << 40) + 3};
    Tensor tensor({2, 2}, values.data());
    EXPECT_EQ(tensor.type(), Tensor::Type::Int64);
    EXPECT_EQ(tensor.byteSize(), 32u);
    EXPECT_EQ(tensor.toIntVector(), values);
}

TEST(Tensor, TypedVectorsCopyTheElements)
{
    std::vector<float> const floats{0.5f, -1.f, 3.25f};
    std::vector<std::uint8_t> const bytes{0, 128, 255};
    EXPECT_EQ(Tensor({3}, floats.data()).toFloatVector(), floats);
    EXPECT_EQ(Tensor({3, 1}, bytes.data()).toUByteVector(), bytes);
}

struct WrongVectorCase
{
    Tensor::Type type;
    int request; // 0 float, 1 int, 2 uint8
    char const* message;
};

class TensorWrongVectorTest : public ::testing::TestWithParam<WrongVectorCase>
{};

TEST_P(TensorWrongVectorTest, LogsAndReturnsEmpty)
{
    WrongVectorCase const c = GetParam();
    Tensor tensor({4}, c.type, nullptr);
    Log::Capture capture;
    std::size_t size = 99;
    if (c.request == 0)
        size = tensor.toFloatVector().size();
    else if (c.request == 1)
        size = tensor.toIntVector().size();
    else
        size = tensor.toUByteVector().size();
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(capture.contains(c.message, "ML.Tensor"));
}

INSTANTIATE_TEST_SUITE_P(
    Mismatches, TensorWrongVectorTest,
    ::testing::Values(
        WrongVectorCase{Tensor::Type::Int64, 0, "Float vector requested, but Tensor is not float"},
        WrongVectorCase{Tensor::Type::UInt8, 0, "Float vector requested, but Tensor is not float"},
        WrongVectorCase{Tensor::Type::Float, 1, "Int vector requested, but Tensor is not int"},
        WrongVectorCase{Tensor::Type::Float, 2, "uint8 vector requested, but Tensor is not uint8"},
        WrongVectorCase{Tensor::Type::Int64, 2, "uint8 vector requested, but Tensor is not uint8"}));

TEST(Tensor, UnknownTagHasNoElementSize)
{
    Log::Capture capture;
    auto const bogus = static_cast<Tensor::Type>(5125);
    EXPECT_EQ(Tensor::elementByteSize(bogus), 0u);
    EXPECT_TRUE(capture.contains("ByteSize of Unknown type request", "ML.Tensor"));
    Tensor tensor({4}, bogus, nullptr);
    EXPECT_EQ(tensor.byteSize(), 0u);
}

TEST(Tensor, EqualityNeedsEqualTagsShapesAndBytes)
{
    std::vector<std::uint8_t> const zeros(16, 0);
    Tensor const asFloat({2}, Tensor::Type::Float, zeros.data());
    Tensor const asInt({2}, Tensor::Type::Int64, zeros.data());
    Tensor const asBytes({2}, Tensor::Type::UInt8, zeros.data());
    EXPECT_NE(asFloat, asInt);
    EXPECT_NE(asFloat, asBytes);
    EXPECT_NE(asInt, asBytes);
    EXPECT_EQ(asFloat, Tensor({2}, Tensor::Type::Float, zeros.data()));

    std::vector<float> const values{1, 2, 3, 4};
    EXPECT_NE(Tensor({2, 2}, values.data()), Tensor({4}, values.data()));
    std::vector<float> changed = values;
    changed[3] = 5;
    EXPECT_NE(Tensor({4}, values.data()), Tensor({4}, changed.data()));
}

TEST(Tensor, CopiesAreIndependentAndMovesEmptyTheSource)
{
    std::vector<float> const values{1, 2};
    Tensor original({2}, values.data());
    Tensor copy = original;
    copy.bytePtr()[0] ^= 0xff;
    EXPECT_NE(copy, original);
    EXPECT_EQ(original.toFloatVector(), values);

    Tensor moved(std::move(original));
    EXPECT_EQ(moved.toFloatVector(), values);
    EXPECT_EQ(original.numElements(), 0u); // NOLINT(bugprone-use-after-move): the moved-from state is defined

    Tensor other;
    other.swapWith(moved);
    EXPECT_EQ(other.toFloatVector(), values);
    EXPECT_EQ(moved.numElements(), 0u);
}

// TensorSet ----------------------------------------------------------------------------------

namespace {

std::shared_ptr<Tensor> floatTensor(std::vector<float> const& values, Tensor::Shape shape)
{
    return std::make_shared<Tensor>(std::move(shape), values.data());
}

} // namespace

TEST(TensorSet, OutOfBoundsAccessLogsIndexAndSize)
{
    TensorSet set({floatTensor({1, 2}, {2}), floatTensor({3, 4}, {2})});
    Log::Capture capture;
    EXPECT_EQ(set.getShared(2), nullptr);
    EXPECT_TRUE(capture.contains("Accessing TensorSet out of bounds: 2/2", "ML.TensorSet"));
    EXPECT_EQ(set.getShared(7), nullptr);
    EXPECT_TRUE(capture.contains("Accessing TensorSet out of bounds: 7/2", "ML.TensorSet"));
    ASSERT_NE(set.getShared(1), nullptr);
    EXPECT_EQ(set.getShared(1)->toFloatVector(), (std::vector<float>{3, 4}));
}

TEST(TensorSet, RefusesNullTensors)
{
    Log::Capture capture;
    TensorSet set(std::vector<std::shared_ptr<Tensor>>{floatTensor({1}, {1}), nullptr});
    EXPECT_EQ(set.size(), 1u);
    EXPECT_FALSE(set.add(nullptr));
    EXPECT_EQ(set.size(), 1u);
    EXPECT_EQ(capture.messages(Log::Error).size(), 2u);
}

TEST(TensorSet, DimensionIsTheOrderOfTheFirstTensor)
{
    EXPECT_EQ(TensorSet().dimension(), 0);
    TensorSet set(floatTensor({1, 2, 3, 4, 5, 6}, {1, 2, 3}));
    EXPECT_EQ(set.dimension(), 3);
    set.add(floatTensor({1}, {1}));
    EXPECT_EQ(set.dimension(), 3);
}

TEST(TensorSet, HasNoPlaceInTheWorld)
{
    TensorSet set(floatTensor({1}, {1}));
    EXPECT_EQ(set.kind(), Data::Kind::Unknown);
    EXPECT_TRUE(set.bounds().isEmpty());
    EXPECT_EQ(set.describe(), "TensorSet");
}

TEST(TensorSet, EqualityComparesTensorValuesNotPointers)
{
    TensorSet a({floatTensor({1, 2}, {2}), floatTensor({3}, {1})});
    TensorSet b({floatTensor({1, 2}, {2}), floatTensor({3}, {1})});
    EXPECT_EQ(a, b);
    b.add(floatTensor({4}, {1}));
    EXPECT_NE(a, b);
    TensorSet c({floatTensor({1, 2}, {2}), floatTensor({9}, {1})});
    EXPECT_NE(a, c);
}

TEST(TensorSet, CloneCopiesOrSharesTensorsAndKeepsAttributes)
{
    TensorSet set({floatTensor({1, 2}, {2})});
    set.setName("logits");
    auto deep = set.clone(true);
    auto shallow = set.clone(false);
    EXPECT_EQ(deep->name(), "logits");
    EXPECT_EQ(*deep, set);
    EXPECT_NE(deep->getShared(0), set.getShared(0));
    EXPECT_EQ(shallow->getShared(0), set.getShared(0));
}

TEST(TensorSet, MoveAndSwapTransferTensors)
{
    auto tensor = floatTensor({1}, {1});
    TensorSet source(tensor);
    source.setName("source");
    TensorSet moved(std::move(source));
    EXPECT_EQ(moved.name(), "source");
    EXPECT_EQ(moved.getShared(0), tensor);
    EXPECT_TRUE(source.empty()); // NOLINT(bugprone-use-after-move)

    TensorSet other;
    EXPECT_TRUE(other.swapWith(moved));
    EXPECT_EQ(other.size(), 1u);
    EXPECT_EQ(other.name(), "source");
    EXPECT_TRUE(moved.empty());
}

TEST(TensorSet, SelectionStaysWithinTheSet)
{
    TensorSet set({floatTensor({1}, {1}), floatTensor({2}, {1})});
    set.setSelection(Selection({0, 1, 5}, 5));
    EXPECT_EQ(set.selection().indices(), (std::vector<int>{0, 1}));
    EXPECT_LT(set.focus(), 2);
}
