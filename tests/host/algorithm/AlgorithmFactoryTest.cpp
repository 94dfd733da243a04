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

    AlgorithmFactory factory;
    PointCloud cloud{3, false, "cloud"};
    Mesh mesh1{"m1"};
    Mesh mesh2{"m2"};
};

std::vector<std::string> ids(std::vector<AlgorithmFactory::Descriptor const*> const& descriptors)
{
    std::vector<std::string> result;
    for (auto const* d : descriptors)
        result.push_back(d->id);
    return result;
}

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
    int iterations = 0;
    EXPECT_TRUE(meshDescriptor->properties.param("iterations", iterations));
    EXPECT_EQ(iterations, 3);

    EXPECT_EQ(factory.algorithmDescriptor("XyzIo", false), nullptr);
    ASSERT_NE(factory.algorithmDescriptor("XyzIo", true), nullptr);
    EXPECT_EQ(ids(factory.algorithmDescriptors()), (std::vector<std::string>{"Cloud", "Meshes"}));
    EXPECT_EQ(ids(factory.ioAlgorithmDescriptors()), (std::vector<std::string>{"XyzIo"}));
}

struct CompatibilityCase
{
    std::string name;
    std::vector<int> items; // 0 = cloud, 1 = mesh1, 2 = mesh2
    std::vector<std::string> expected;
};

class AlgorithmFactoryCompatibility : public AlgorithmFactoryTest,
                                      public ::testing::WithParamInterface<CompatibilityCase>
{};

TEST_P(AlgorithmFactoryCompatibility, SelectsByCreateCompatible)
{
    Data* all[] = {&cloud, &mesh1, &mesh2};
    DataList data;
    for (int i : GetParam().items)
        data.add(all[i]);
    EXPECT_EQ(ids(factory.compatibleDescriptors(data)), GetParam().expected);
    for (auto const& id : GetParam().expected)
        EXPECT_NE(factory.instantiateAlgorithm(id, data), nullptr) << id;
}

INSTANTIATE_TEST_SUITE_P(AlgorithmFactory, AlgorithmFactoryCompatibility,
                         ::testing::Values(CompatibilityCase{"cloud", {0}, {"Cloud"}},
                                           CompatibilityCase{"meshes", {1, 2}, {"Meshes"}},
                                           CompatibilityCase{"mixed", {0, 1}, {}},
                                           CompatibilityCase{"nothing", {}, {}}),
                         [](auto const& info) { return info.param.name; });

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

class LoaderPaths : public AlgorithmFactoryTest,
                    public ::testing::WithParamInterface<std::pair<std::string, bool>>
{};

TEST_P(LoaderPaths, CompatibleIoDescriptorsByPath)
{
    auto found = ids(factory.compatibleIoDescriptors(GetParam().first));
    EXPECT_EQ(found.size(), GetParam().second ? 1u : 0u) << GetParam().first;
}

INSTANTIATE_TEST_SUITE_P(AlgorithmFactory, LoaderPaths,
                         ::testing::Values(std::pair{std::string("/data/scan.xyz"), true},
                                           std::pair{std::string("SCAN.XYZ.GZ"), true},
                                           std::pair{std::string("scan.xyzw"), false},
                                           std::pair{std::string("folder.xyz/"), false},
                                           std::pair{std::string("scan.nii"), false}));

TEST_F(AlgorithmFactoryTest, RegistryAsksFactoriesInOrder)
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
    auto algorithm = registry.instantiateAlgorithm("Cloud", meshes);
    EXPECT_NE(dynamic_cast<MeshAlgorithm*>(algorithm.get()), nullptr);

    EXPECT_EQ(registry.instantiateAlgorithm("Missing", meshes), nullptr);
    EXPECT_TRUE(capture.contains("No factory offers algorithm 'Missing'", "Host.FactoryRegistry"));
    EXPECT_NE(registry.instantiateIoAlgorithm("XyzIo", DataList{}), nullptr);
    EXPECT_EQ(ids(registry.compatibleIoDescriptors("a.xyz")), (std::vector<std::string>{"XyzIo"}));
    EXPECT_EQ(ids(registry.compatibleDescriptors(meshes)), (std::vector<std::string>{"Cloud", "Meshes"}));
    registry.removeFactory(&factory);
}

TEST(FactoryRegistry, FactoryLeavesTheRegistryWhenDestroyed)
{
    {
        AlgorithmFactory temporary("Temporary");
        temporary.addAlgorithmFactoryToFront();
        EXPECT_EQ(FactoryRegistry::get().factories().front(), &temporary);
    }
    for (AlgorithmFactory* f : FactoryRegistry::get().factories())
        EXPECT_NE(f->category(), "Temporary");
}
