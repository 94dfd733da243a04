// AlgorithmUtils::execute turns outcomes and exceptions into a status; controllers run
// algorithms from their form; wide images run in groups of channels.

#include "host/algorithm/AlgorithmUtils.h"

#include "host/algorithm/Controller.h"
#include "host/algorithm/IoAlgorithm.h"
#include "host/core/Log.h"
#include "host/core/Parameter.h"
#include "host/core/Progress.h"
#include "host/data/PointCloud.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

using namespace Velmoria;

namespace {

enum class Behaviour
{
    Succeed,
    LeaveUnknown,
    SetInvalidInput,
    ThrowRuntime,
    ThrowBadAlloc,
    ThrowInt
};

class Scripted : public Algorithm
{
public:
    void compute() override
    {
        ++runs;
        switch (behaviour) {
        case Behaviour::Succeed:
            m_output.add(
                std::make_unique<PointCloud>(static_cast<std::size_t>(p_count.value()), false, "out"));
            setStatus(Success);
            break;
        case Behaviour::LeaveUnknown:
            break;
        case Behaviour::SetInvalidInput:
            setStatus(InvalidInput);
            break;
        case Behaviour::ThrowRuntime:
            throw std::runtime_error("broken input");
        case Behaviour::ThrowBadAlloc:
            throw std::bad_alloc();
        case Behaviour::ThrowInt:
            throw 42;
        }
    }
    OwningDataList takeOutput() override { return std::move(m_output); }

    Behaviour behaviour = Behaviour::Succeed;
    int runs = 0;
    Parameter<int> p_count{"count", 2, this};

private:
    OwningDataList m_output;
};

class Saver : public IoAlgorithm
{
public:
    Saver()
        : IoAlgorithm(Save, 1)
    {}
    std::vector<std::string> supportedLocations() const override { return {"*.vtk"}; }
    void compute() override
    {
        int code = Success;
        if (location().empty()) {
            fail(&code, IncompleteInput);
            lastCode = code;
            return;
        }
        setStatus(Success);
    }
    int lastCode = Unknown;
};

// A 2x1 frame whose channel c of pixel x holds 10 * c + x.
std::shared_ptr<SharedImage> channelRamp(int channels)
{
    auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(2, 1, 1), channels);
    for (int x = 0; x < 2; ++x)
        for (int c = 0; c < channels; ++c)
            pixels->setValue(static_cast<float>(10 * c + x), x, 0, 0, c);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    Eigen::Matrix4d matrix = Eigen::Matrix4d::Identity();
    matrix(1, 3) = 7.0;
    frame->setMatrixToWorld(matrix);
    return frame;
}

// Adds 1 to every value, replacing the frames as a resampler would.
bool addOne(SharedImageSet& set)
{
    std::vector<std::shared_ptr<SharedImage>> frames;
    for (auto const& frame : set.images()) {
        auto copy = std::shared_ptr<SharedImage>(frame->clone());
        auto* typed = static_cast<TypedImage<float>*>(copy->mem());
        for (std::size_t i = 0; i < typed->valueCount(); ++i)
            typed->pointer()[i] += 1.0f;
        frames.push_back(copy);
    }
    return set.replaceAll(frames);
}

} // namespace

TEST(AlgorithmUtils, ExecuteTurnsOutcomesIntoStatus)
{
    struct Row
    {
        Behaviour behaviour;
        int status;
        std::string log; // fragment expected in the log, empty for none
    };
    for (Row const& row : {Row{Behaviour::Succeed, Algorithm::Success, ""},
                           Row{Behaviour::LeaveUnknown, Algorithm::Success, ""},
                           Row{Behaviour::SetInvalidInput, Algorithm::InvalidInput, ""},
                           Row{Behaviour::ThrowRuntime, Algorithm::Error,
                               "Algorithm (anonymous namespace)::Scripted failed: broken input"},
                           Row{Behaviour::ThrowBadAlloc, Algorithm::OutOfMemory, "ran out of memory"},
                           Row{Behaviour::ThrowInt, Algorithm::Error, "failed: unknown exception"}}) {
        Scripted algorithm;
        algorithm.behaviour = row.behaviour;
        SCOPED_TRACE(Algorithm::statusString(row.status));
        EXPECT_EQ(algorithm.status(), Algorithm::Unknown);
        Progress progress;
        Log::Capture capture;
        EXPECT_EQ(AlgorithmUtils::execute(algorithm, &progress), row.status == Algorithm::Success);
        EXPECT_EQ(algorithm.status(), row.status) << Algorithm::statusString(algorithm.status());
        EXPECT_EQ(algorithm.progress(), &progress);
        if (row.log.empty())
            EXPECT_TRUE(capture.messages(Log::Error).empty());
        else
            EXPECT_TRUE(capture.containsFragment(row.log)) << row.log;

        // A stale failure must not survive a rerun.
        algorithm.behaviour = Behaviour::LeaveUnknown;
        EXPECT_TRUE(AlgorithmUtils::execute(algorithm));
    }
    EXPECT_EQ(Algorithm::statusString(Algorithm::Canceled), "Canceled");
    EXPECT_EQ(Algorithm::statusString(1001), "Custom status 1001");
}

TEST(DefaultAlgorithmController, FormAndComputeOnChange)
{
    Scripted algorithm;
    DefaultAlgorithmController controller(&algorithm, "Scripted", false, true);
    controller.init();
    int count = 0;
    EXPECT_TRUE(controller.form().param("count", count));
    EXPECT_EQ(count, 2);
    EXPECT_FALSE(controller.showComputeButton());

    Properties values{{"count", 5}};
    EXPECT_TRUE(controller.applyForm(values));
    EXPECT_EQ(algorithm.runs, 1) << "computeOnChange runs the algorithm";
    OwningDataList out = algorithm.takeOutput();
    ASSERT_EQ(out.size(), 1);
    EXPECT_EQ(static_cast<PointCloud*>(out.getItem(0))->size(), 5u);
    EXPECT_TRUE(controller.form().param("count", count));
    EXPECT_EQ(count, 5);

    DefaultAlgorithmController passive(&algorithm, "Scripted", true, false);
    EXPECT_TRUE(passive.applyForm(values));
    EXPECT_EQ(algorithm.runs, 1);
    DefaultAlgorithmController empty(nullptr, "none");
    EXPECT_FALSE(empty.compute());
}

TEST(IoAlgorithm, FailSetsBothStatusesAndSaversDoNotLoad)
{
    Saver saver;
    EXPECT_EQ(saver.saveCount(), 1);
    EXPECT_FALSE(saver.canLoad("mesh.vtk")) << "a save-only algorithm loads nothing";
    EXPECT_FALSE(AlgorithmUtils::execute(saver));
    EXPECT_EQ(saver.status(), Algorithm::IncompleteInput);
    EXPECT_EQ(saver.lastCode, Algorithm::IncompleteInput);
    saver.setLocation("/tmp/out.vtk");
    EXPECT_TRUE(AlgorithmUtils::execute(saver));
    IoController controller(&saver, "Save");
    EXPECT_EQ(controller.ioAlgorithm()->location(), "/tmp/out.vtk");
    EXPECT_EQ(controller.algorithm(), &saver);
}

TEST(ExecuteBatchedChannels, WideImagesRunInGroupsAndAreWovenBackInOrderOrLeftAlone)
{
    SharedImageSet narrow(channelRamp(3));
    int calls = 0;
    EXPECT_TRUE(AlgorithmUtils::executeBatchedChannels(narrow, [&](SharedImageSet& s) {
        ++calls;
        EXPECT_EQ(&s, &narrow) << "narrow images run in one step";
        return addOne(s);
    }));
    EXPECT_EQ(calls, 1);

    SharedImageSet set;
    set.add(channelRamp(6));
    set.add(channelRamp(6));
    std::vector<int> groupWidths;
    EXPECT_TRUE(AlgorithmUtils::executeBatchedChannels(set, [&](SharedImageSet& s) {
        groupWidths.push_back(s.get(0)->channels());
        return addOne(s);
    }));
    EXPECT_EQ(groupWidths, (std::vector<int>{4, 2, 4, 2}));
    ASSERT_EQ(set.size(), 2);
    auto const* result = static_cast<TypedImage<float> const*>(set.mem(1));
    ASSERT_EQ(result->channels(), 6);
    for (int c = 0; c < 6; ++c)
        EXPECT_EQ(result->value(1, 0, 0, c), static_cast<float>(10 * c + 1 + 1)) << "channel " << c;
    EXPECT_EQ(set.get(1)->matrixToWorld()(1, 3), 7.0) << "geometry must survive the split into groups";

    // A failing group leaves the images unchanged.
    SharedImageSet failing(channelRamp(5));
    auto original = failing.getShared(0);
    Log::Capture capture;
    calls = 0;
    EXPECT_FALSE(AlgorithmUtils::executeBatchedChannels(
        failing, [&](SharedImageSet& s) { return ++calls == 1 ? addOne(s) : false; }));
    EXPECT_EQ(failing.getShared(0), original);
    EXPECT_TRUE(capture.containsFragment("channels 4 to 4 of frame 0"));
}
