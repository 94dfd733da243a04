// Tensor: the stream format (layout, round trip, damaged streams), sizes, typed access and
// equality; TensorSet: bounds, null tensors, clones, moves and selection.

#include "ml/data/Tensor.h"

#include "ml/data/TensorSet.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <sstream>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

// A tensor of `type` and `shape` whose bytes all differ from their neighbours, so that a shifted
// or truncated copy is caught.
Tensor patternTensor(Tensor::Type type, Tensor::Shape shape)
{
    Tensor probe(shape, type, nullptr);
    std::vector<std::uint8_t> bytes(probe.byteSize());
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
    return Tensor(std::move(shape), type, bytes.data());
}

std::shared_ptr<Tensor> floatTensor(std::vector<float> const& values, Tensor::Shape shape)
{
    return std::make_shared<Tensor>(std::move(shape), values.data());
}

// The header of a stream: tag, order and shape, without data.
std::string streamHeader(std::uint32_t tag, std::vector<std::uint64_t> const& shape)
{
    std::string bytes(8 + shape.size() * 8, '\0');
    auto const order = static_cast<std::uint32_t>(shape.size());
    std::memcpy(bytes.data(), &tag, 4);
    std::memcpy(bytes.data() + 4, &order, 4);
    std::memcpy(bytes.data() + 8, shape.data(), shape.size() * 8);
    return bytes;
}

struct TypeCase
{
    Tensor::Type type;
    std::size_t elementBytes;
};

class TensorTypeTest : public ::testing::TestWithParam<TypeCase>
{};

} // namespace

TEST_P(TensorTypeTest, StreamRoundTripKeepsTypeShapeAndBytes)
{
    TypeCase const c = GetParam();
    Tensor const original = patternTensor(c.type, {2, 3, 4});
    EXPECT_EQ(original.byteSize(), 24 * c.elementBytes);

    std::stringstream stream;
    ASSERT_TRUE(original.serialize(stream));
    // type tag + order + 3 shape entries + data, no padding.
    EXPECT_EQ(stream.str().size(), 4u + 4u + 3u * 8u + 24u * c.elementBytes);
    EXPECT_EQ(stream.str().substr(0, 32), streamHeader(static_cast<std::uint32_t>(c.type), {2, 3, 4}));
    EXPECT_EQ(stream.str().back(), static_cast<char>(original.bytePtr()[original.byteSize() - 1]));

    Tensor read;
    ASSERT_TRUE(read.deserialize(stream));
    EXPECT_EQ(read.type(), c.type);
    EXPECT_EQ(read.shape(), (Tensor::Shape{2, 3, 4}));
    EXPECT_EQ(std::memcmp(read.bytePtr(), original.bytePtr(), original.byteSize()), 0);
}

INSTANTIATE_TEST_SUITE_P(AllTypes, TensorTypeTest,
                         ::testing::Values(TypeCase{Tensor::Type::Float, 4}, TypeCase{Tensor::Type::Int64, 8},
                                           TypeCase{Tensor::Type::UInt8, 1}));

TEST(Tensor, DamagedStreamsAreRefusedWithTheReasonAndChangeNothing)
{
    std::uint64_t const huge = std::uint64_t{1} << 40;
    struct Case
    {
        char const* name;
        std::string bytes;
        char const* message;
    };
    // A size that fits but is far beyond the stream's content fails on reading, not by
    // allocating the claimed size up front.
    Case const cases[] = {
        {"unknown tag", streamHeader(5125, {1}), "Unknown tensor element type 5125 in stream"},
        {"overflowing shape", streamHeader(5124, {huge, huge}),
         "Tensor of 2 dimensions in stream is too large to be held"},
        {"claims too much", streamHeader(5121, {huge}), "Failure during deserialization"},
        {"cut shape", streamHeader(5126, {2, 3}).substr(0, 20), "Failure during deserialization"},
    };
    std::vector<Case> all(std::begin(cases), std::end(cases));
    // A stream cut one byte short of its data, for every type.
    for (Tensor::Type type : {Tensor::Type::Float, Tensor::Type::Int64, Tensor::Type::UInt8}) {
        std::stringstream full;
        ASSERT_TRUE(patternTensor(type, {5}).serialize(full));
        all.push_back(
            {"cut data", full.str().substr(0, full.str().size() - 1), "Failure during deserialization"});
    }
    float const value = 2.5f;
    for (Case const& c : all) {
        SCOPED_TRACE(c.name);
        std::stringstream in(c.bytes);
        Tensor tensor({1}, &value);
        Log::Capture capture;
        EXPECT_FALSE(tensor.deserialize(in));
        EXPECT_TRUE(capture.contains(c.message, "ML.Tensor"));
        EXPECT_EQ(tensor, Tensor({1}, &value)); // left unchanged
    }

    std::stringstream failed("irrelevant");
    failed.setstate(std::ios::failbit);
    Log::Capture capture;
    EXPECT_FALSE(Tensor().deserialize(failed));
    EXPECT_TRUE(capture.contains("Failure during deserialization", "ML.Tensor"));
    std::ostringstream out;
    out.setstate(std::ios::failbit);
    EXPECT_FALSE(patternTensor(Tensor::Type::Float, {1}).serialize(out));
    EXPECT_TRUE(out.str().empty());
}

TEST(Tensor, SizesFollowTheShapeAndRoundUpToWords)
{
    struct Case
    {
        Tensor::Shape shape;
        Tensor::Type type;
        std::size_t elements;
        std::size_t words;
    };
    Case const cases[] = {
        {{}, Tensor::Type::Float, 0, 0},        {{3, 0, 2}, Tensor::Type::Float, 0, 0},
        {{3, 1, 2}, Tensor::Type::Float, 6, 3}, {{3}, Tensor::Type::Float, 3, 2},
        {{12}, Tensor::Type::UInt8, 12, 2},     {{16}, Tensor::Type::UInt8, 16, 2},
        {{17}, Tensor::Type::UInt8, 17, 3},     {{3}, Tensor::Type::Int64, 3, 3},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.shape) + " of type " + std::to_string(int(c.type)));
        Tensor const tensor(c.shape, c.type, nullptr);
        EXPECT_EQ(tensor.numElements(), c.elements);
        EXPECT_EQ(tensor.buffer64Size(), c.words);
    }
    EXPECT_EQ(Tensor().byteSize(), 0u);

    Log::Capture capture;
    auto const bogus = static_cast<Tensor::Type>(5125);
    EXPECT_EQ(Tensor({4}, bogus, nullptr).byteSize(), 0u);
    EXPECT_TRUE(capture.contains("ByteSize of Unknown type request", "ML.Tensor"));
}

TEST(Tensor, TypedVectorsCopyTheElementsOfTheirTypeOnly)
{
    std::vector<std::int64_t> const ints{std::numeric_limits<std::int64_t>::min(), -1, 0,
                                         (std::int64_t{1} << 40) + 3};
    std::vector<float> const floats{0.5f, -1.f, 3.25f};
    std::vector<std::uint8_t> const bytes{0, 128, 255};
    Tensor const intTensor({2, 2}, ints.data());
    Tensor const floatTensor({3}, floats.data());
    Tensor const byteTensor({3, 1}, bytes.data());
    EXPECT_EQ(intTensor.type(), Tensor::Type::Int64);
    EXPECT_EQ(intTensor.toIntVector(), ints);
    EXPECT_EQ(floatTensor.toFloatVector(), floats);
    EXPECT_EQ(byteTensor.toUByteVector(), bytes);

    Log::Capture capture;
    EXPECT_TRUE(intTensor.toFloatVector().empty());
    EXPECT_TRUE(capture.contains("Float vector requested, but Tensor is not float", "ML.Tensor"));
    EXPECT_TRUE(floatTensor.toIntVector().empty());
    EXPECT_TRUE(capture.contains("Int vector requested, but Tensor is not int", "ML.Tensor"));
    EXPECT_TRUE(intTensor.toUByteVector().empty());
    EXPECT_TRUE(capture.contains("uint8 vector requested, but Tensor is not uint8", "ML.Tensor"));
}

TEST(Tensor, EqualityNeedsEqualTagsShapesAndBytes)
{
    std::vector<std::uint8_t> const zeros(16, 0);
    Tensor const asFloat({2}, Tensor::Type::Float, zeros.data());
    EXPECT_NE(asFloat, Tensor({2}, Tensor::Type::Int64, zeros.data()));
    EXPECT_NE(asFloat, Tensor({2}, Tensor::Type::UInt8, zeros.data()));
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
    other = std::move(moved);
    EXPECT_EQ(other.toFloatVector(), values);
    EXPECT_EQ(moved.numElements(), 0u); // NOLINT(bugprone-use-after-move)
}

// TensorSet ----------------------------------------------------------------------------------

TEST(TensorSet, RefusesNullTensorsAndOutOfBoundsAccessAndSelectsWithin)
{
    Log::Capture capture;
    TensorSet set(std::vector<std::shared_ptr<Tensor>>{floatTensor({1, 2}, {2}), nullptr});
    EXPECT_FALSE(set.add(nullptr));
    EXPECT_EQ(set.size(), 1u);
    EXPECT_EQ(capture.messages(Log::Error).size(), 2u);

    EXPECT_EQ(set.getShared(7), nullptr);
    EXPECT_TRUE(capture.contains("Accessing TensorSet out of bounds: 7/1", "ML.TensorSet"));
    EXPECT_EQ(set.getShared(0)->toFloatVector(), (std::vector<float>{1, 2}));

    // The dimension is the order of the first tensor.
    EXPECT_EQ(TensorSet().dimension(), 0);
    set.add(floatTensor({1, 2, 3, 4, 5, 6}, {1, 2, 3}));
    EXPECT_EQ(set.dimension(), 1);
    set.setSelection(Selection({0, 1, 5}, 5));
    EXPECT_EQ(set.selection().indices(), (std::vector<int>{0, 1}));
    EXPECT_LT(set.focus(), 2);
}

TEST(TensorSet, EqualityComparesValuesAndClonesCopyOrShare)
{
    TensorSet a({floatTensor({1, 2}, {2}), floatTensor({3}, {1})});
    TensorSet b({floatTensor({1, 2}, {2}), floatTensor({3}, {1})});
    EXPECT_EQ(a, b);
    b.add(floatTensor({4}, {1}));
    EXPECT_NE(a, b);
    EXPECT_NE(a, TensorSet({floatTensor({1, 2}, {2}), floatTensor({9}, {1})}));

    a.setName("logits");
    auto deep = a.clone(true);
    EXPECT_EQ(deep->name(), "logits");
    EXPECT_EQ(*deep, a);
    EXPECT_NE(deep->getShared(0), a.getShared(0));
    EXPECT_EQ(a.clone(false)->getShared(0), a.getShared(0));
}

TEST(TensorSet, MovesAndSwapTransferTensorsAndName)
{
    auto tensor = floatTensor({1}, {1});
    TensorSet source(tensor);
    source.setName("source");
    TensorSet moved(std::move(source));
    EXPECT_EQ(moved.getShared(0), tensor);
    EXPECT_TRUE(source.empty()); // NOLINT(bugprone-use-after-move): the moved-from state is defined

    TensorSet assigned;
    assigned = std::move(moved);
    EXPECT_TRUE(moved.empty()); // NOLINT(bugprone-use-after-move)

    TensorSet other;
    EXPECT_TRUE(other.swapWith(assigned));
    EXPECT_EQ(other.getShared(0), tensor);
    EXPECT_EQ(other.name(), "source");
    EXPECT_TRUE(assigned.empty());
}
