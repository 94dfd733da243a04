// Algorithm factories and the registry: descriptors from registerAlgorithm, selection by
// createCompatible, IO algorithms found by file name, and the registry's factory order.

#include "host/algorithm/AlgorithmFactory.h"

#include "host/algorithm/FactoryRegistry.h"
#include "host/core/Log.h"
#include "host/data/Mesh.h"
#include "host/data/PointCloud.h"

#include <gtest/gtest.h>

using namespace Velmoria;
using Attribute = AlgorithmFactory::Descriptor::AlgorithmAttributes;

namespace {

// Runs on exactly one point cloud.
class CloudAlgorithm : public Algorithm
{
public:
    static bool createCompatible(DataList const& data, Algorithm** a)
    {
        if (data.size() != 1 || data.getPointClouds().size() != 1)
            return false;
        if (a)
            *a = new CloudAlgorithm;
        return true;
    }
    void compute() override { setStatus(Success); }
};

// Runs on any number of meshes (at least one).
class MeshAlgorithm : public Algorithm
{
public:
    static bool createCompatible(DataList const& data, Algorithm** a)
    {
        if (data.empty() || data.getAll(Data::Kind::Mesh).size() != static_cast<std::size_t>(data.size()))
            return false;
        if (a)
            *a = new MeshAlgorithm;
        return true;
    }
    void compute() override {}
};

class XyzLoader : public IoAlgorithm
{
public:
    XyzLoader()
        : IoAlgorithm(Load, 0)
    {}
    static bool createCompatible(DataList const& data, Algorithm** a)
    {
        if (!data.empty())
            return false;
        if (a)
            *a = new XyzLoader;
        return true;
    }
    std::vector<std::string> supportedLocations() const override { return {"*.xyz", "*.xyz.gz"}; }
    void compute() override {}
};

class AlgorithmFactoryTest : public ::testing::Test
{
protected:
    AlgorithmFactoryTest()
        : factory("Test", true)
    {
        factory.registerAlgorithm<CloudAlgorithm>("Cloud", "Points; Process cloud",
                                                  Attribute::CustomController);
        factory.registerAlgorithm<MeshAlgorithm>("Meshes", "Meshes;Batch;Smooth",
                                                 {Attribute::Batch, Attribute::NoInputRequired},
                                                 Properties{{"iterations", 3}});
        factory.registerAlgorithm<XyzLoader>("XyzIo", "IO;XYZ");
    }

    static std::vector<std::string> ids(std::vector<AlgorithmFactory::Descriptor const*> const& descriptors)
    {
        std::vector<std::string> result;
        for (auto const* d : descriptors)
            result.push_back(d->id);
        return result;
    }

    AlgorithmFactory factory;
    PointCloud cloud{3, false, "cloud"};
    Mesh mesh1{"m1"};
    Mesh mesh2{"m2"};
};

} // namespace

TEST_F(AlgorithmFactoryTest, DescriptorsRecordMenuAttributesAndIo)
{
    auto const* cloudDescriptor = factory.algorithmDescriptor("Cloud");
    ASSERT_NE(cloudDescriptor, nullptr);
    EXPECT_EQ(cloudDescriptor->menuLevels, (std::vector<std::string>{"Points", "Process cloud"}));
    EXPECT_EQ(cloudDescriptor->attributes.value(), 4u);
    EXPECT_FALSE(cloudDescriptor->isIo);

    auto const* meshDescriptor = factory.algorithmDescriptor("Meshes");
    ASSERT_NE(meshDescriptor, nullptr);
    EXPECT_EQ(meshDescriptor->menuLevels, (std::vector<std::string>{"Meshes", "Batch", "Smooth"}));
    EXPECT_EQ(meshDescriptor->attributes.value(), 3u);
    EXPECT_EQ(meshDescriptor->properties.paramOr("iterations", 0), 3);

    EXPECT_EQ(factory.algorithmDescriptor("XyzIo", false), nullptr);
    ASSERT_NE(factory.algorithmDescriptor("XyzIo", true), nullptr);
    EXPECT_EQ(ids(factory.algorithmDescriptors()), (std::vector<std::string>{"Cloud", "Meshes"}));
    EXPECT_EQ(ids(factory.ioAlgorithmDescriptors()), (std::vector<std::string>{"XyzIo"}));
}

TEST_F(AlgorithmFactoryTest, SelectsByCreateCompatible)
{
    struct Row
    {
        DataList data;
        std::vector<std::string> expected;
    };
    for (Row const& row : {Row{{&cloud}, {"Cloud"}}, Row{{&mesh1, &mesh2}, {"Meshes"}},
                           Row{{&cloud, &mesh1}, {}}, Row{{}, {}}}) {
        SCOPED_TRACE(::testing::PrintToString(row.expected) + " for " + std::to_string(row.data.size()) +
                     " items");
        EXPECT_EQ(ids(factory.compatibleDescriptors(row.data)), row.expected);
        for (auto const& id : row.expected)
            EXPECT_NE(factory.instantiateAlgorithm(id, row.data), nullptr) << id;
    }
}

TEST_F(AlgorithmFactoryTest, InstantiateRefusesUnknownAndIncompatibleWithLogLines)
{
    Log::Capture capture;
    EXPECT_EQ(factory.instantiateAlgorithm("Nope", DataList{&cloud}), nullptr);
    EXPECT_TRUE(capture.contains("Unknown algorithm 'Nope' in factory 'Test'", "Host.AlgorithmFactory"));
    EXPECT_EQ(factory.instantiateAlgorithm("Cloud", DataList{&mesh1}), nullptr);
    EXPECT_TRUE(capture.contains("Algorithm 'Cloud' cannot run on the given data (1 items)",
                                 "Host.AlgorithmFactory"));
    EXPECT_EQ(factory.instantiateAlgorithm("XyzIo", DataList{}), nullptr)
        << "IO algorithms only through *Io*";
    auto loader = factory.instantiateIoAlgorithm("XyzIo", DataList{});
    ASSERT_NE(loader, nullptr);
    EXPECT_EQ(loader->ioMode(), IoAlgorithm::Load);
    EXPECT_EQ(loader->suggestedSaveFileName(), "data.xyz");
}

TEST_F(AlgorithmFactoryTest, IoDescriptorsAreFoundByFileName)
{
    for (auto [path, found] :
         {std::pair{"/data/scan.xyz", true}, std::pair{"SCAN.XYZ.GZ", true}, std::pair{"scan.xyzw", false},
          std::pair{"folder.xyz/", false}, std::pair{"scan.nii", false}})
        EXPECT_EQ(factory.compatibleIoDescriptors(path).size(), found ? 1u : 0u) << path;
}

TEST_F(AlgorithmFactoryTest, RegistryAsksFactoriesInOrderAndForgetsDestroyedOnes)
{
    AlgorithmFactory other("Other", false);
    other.registerAlgorithm<MeshAlgorithm>("Cloud", "Other;Cloud");
    auto& registry = FactoryRegistry::get();
    registry.addFactory(&factory);
    registry.addFactory(&other);
    EXPECT_EQ(registry.factories(), (std::vector<AlgorithmFactory*>{&factory, &other}));

    DataList meshes{&mesh1};
    Log::Capture capture;
    EXPECT_EQ(registry.instantiateAlgorithm("Cloud", meshes), nullptr)
        << "the first factory's Cloud wants a cloud";
    other.addAlgorithmFactoryToFront();
    EXPECT_EQ(registry.factories(), (std::vector<AlgorithmFactory*>{&other, &factory}));
    EXPECT_NE(dynamic_cast<MeshAlgorithm*>(registry.instantiateAlgorithm("Cloud", meshes).get()), nullptr);

    EXPECT_EQ(registry.instantiateAlgorithm("Missing", meshes), nullptr);
    EXPECT_TRUE(capture.contains("No factory offers algorithm 'Missing'", "Host.FactoryRegistry"));
    EXPECT_NE(registry.instantiateIoAlgorithm("XyzIo", DataList{}), nullptr);
    EXPECT_EQ(ids(registry.compatibleIoDescriptors("a.xyz")), (std::vector<std::string>{"XyzIo"}));
    EXPECT_EQ(ids(registry.compatibleDescriptors(meshes)), (std::vector<std::string>{"Cloud", "Meshes"}));
    registry.removeFactory(&factory);
    {
        AlgorithmFactory temporary("Temporary");
        temporary.addAlgorithmFactoryToFront();
        EXPECT_EQ(registry.factories().front(), &temporary);
    }
    EXPECT_EQ(registry.factories(), (std::vector<AlgorithmFactory*>{&other}));
}
