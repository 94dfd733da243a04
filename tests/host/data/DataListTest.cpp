// Data lists (views and owning lists): queries by kind and image modality, extraction that leaves
// the rest in order; modality names and the world matrices every data item has.

#include "host/data/DataList.h"

#include "host/core/Log.h"
#include "host/data/CompoundData.h"
#include "host/data/Mesh.h"
#include "host/data/PointCloud.h"
#include "host/image/SharedImageSet.h"

#include <gtest/gtest.h>

#include <Eigen/LU>

using namespace Velmoria;

namespace {

class Pair : public CompoundData
{
public:
    Pair()
        : cloud(std::vector<Eigen::Vector3d>{Eigen::Vector3d(0, 0, 0)}, false, false)
        , mesh({Eigen::Vector3d(4, 5, 6)}, {})
    {}
    DataList children() const override { return {const_cast<PointCloud*>(&cloud), const_cast<Mesh*>(&mesh)}; }
    PointCloud cloud;
    Mesh mesh;
};

std::unique_ptr<SharedImageSet> imageSet(std::string name, Data::Modality modality)
{
    auto set = std::make_unique<SharedImageSet>(
        std::make_shared<SharedImage>(ImageDescriptor(PixelType::UChar, Eigen::Vector3i(2, 2, 1), 1)));
    set->setName(std::move(name));
    set->setModality(modality);
    return set;
}

// Two point clouds, a mesh, a compound (unnamed) and two image sets.
class DataListTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        owned.add(std::make_unique<PointCloud>(1, false, "p1"));
        owned.add(std::make_unique<Mesh>("m1"));
        owned.add(imageSet("ct", Data::Modality::CT));
        owned.add(std::make_unique<PointCloud>(2, false, "p2"));
        owned.add(std::make_unique<Pair>());
        owned.add(imageSet("labels", Data::Modality::Label));
    }

    static std::vector<std::string> names(std::vector<Data*> const& items)
    {
        std::vector<std::string> result;
        for (Data const* d : items)
            result.push_back(d->name());
        return result;
    }

    OwningDataList owned;
};

} // namespace

TEST_F(DataListTest, GetAllFiltersByKindMask)
{
    DataList const view = owned.dataListView();
    using K = Data::Kind;
    EXPECT_EQ(names(view.getAll(K::Unknown)),
              (std::vector<std::string>{"p1", "m1", "ct", "p2", "", "labels"}));
    EXPECT_EQ(names(view.getAll(K::PointCloud)), (std::vector<std::string>{"p1", "p2"}));
    EXPECT_EQ(names(view.getAll(K::Mesh)), (std::vector<std::string>{"m1"}));
    EXPECT_EQ(names(view.getAll(Data::kindMask({K::Mesh, K::Compound}))),
              (std::vector<std::string>{"m1", ""}));
    EXPECT_TRUE(view.getAll(K::Graph).empty());
}

TEST_F(DataListTest, ViewIndexingAndPointClouds)
{
    DataList view = owned.dataListView();
    EXPECT_EQ(view.size(), 6);
    EXPECT_EQ(view[1]->name(), "m1");
    EXPECT_EQ(view.getItem(6), nullptr);
    EXPECT_EQ(view[-1], nullptr);
    auto clouds = view.getPointClouds();
    ASSERT_EQ(clouds.size(), 2u);
    EXPECT_EQ(clouds[1]->name(), "p2");

    DataList twice;
    twice.add(view);
    twice.add(twice);
    EXPECT_EQ(twice.size(), 12);
    Log::Capture capture;
    twice.add(nullptr);
    EXPECT_EQ(twice.size(), 12);
    EXPECT_TRUE(capture.contains("Ignoring a null data item", "Host.DataList"));
}

TEST_F(DataListTest, ImagesAreSelectedByModality)
{
    DataList const view = owned.dataListView();
    EXPECT_EQ(view.getImages().size(), 2u);
    EXPECT_EQ(view.getImage()->name(), "ct");
    EXPECT_EQ(view.getImage(Data::Kind::Unknown, Data::Modality::Label)->name(), "labels");
    EXPECT_EQ(view.getImage(Data::Kind::Image, Data::Modality::PET), nullptr);
    EXPECT_TRUE(view.getImages(Data::Kind::PointCloud).empty());

    auto labels = owned.extractFirstImage(Data::Kind::Unknown, Data::Modality::Label);
    ASSERT_NE(labels, nullptr);
    EXPECT_EQ(labels->name(), "labels");
    owned.add(imageSet("mr", Data::Modality::MRI));
    auto rest = owned.extractAllImages();
    ASSERT_EQ(rest.size(), 2u);
    EXPECT_EQ(rest[0]->name(), "ct");
    EXPECT_EQ(rest[1]->name(), "mr");
    EXPECT_EQ(owned.size(), 4) << "the other data stays";
}

TEST_F(DataListTest, ExtractionLeavesTheOthersInOrder)
{
    auto mesh = owned.extractFirst<Mesh>();
    ASSERT_NE(mesh, nullptr);
    EXPECT_EQ(mesh->name(), "m1");
    EXPECT_EQ(owned.extractFirst<Mesh>(), nullptr);
    EXPECT_EQ(owned.extractFirst<PointCloud>(Data::Kind::Mesh), nullptr) << "kind and type must both match";
    auto cloud = owned.extractFirst<PointCloud>(Data::Kind::PointCloud);
    ASSERT_NE(cloud, nullptr);
    EXPECT_EQ(cloud->name(), "p1");
    EXPECT_EQ(owned.getItem(0)->name(), "ct");

    OwningDataList clouds = owned.extractAll(Data::Kind::PointCloud);
    EXPECT_EQ(clouds.size(), 1);
    EXPECT_EQ(owned.size(), 3);
    EXPECT_EQ(owned.extractItem(5), nullptr);
    auto pair = owned.extractItem(1);
    ASSERT_NE(pair, nullptr);
    EXPECT_EQ(pair->kind(), Data::Kind::Compound);
    EXPECT_EQ(pair->bounds(), Geometry::AlignedBox(Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(4, 5, 6)));
    owned.add(std::move(clouds));
    EXPECT_EQ(owned.size(), 3);
    EXPECT_EQ(clouds.size(), 0);
    owned.clear();
    EXPECT_TRUE(owned.empty());
}

// Modality names are written into files: they must never change.
TEST(Data, ModalityNamesAndNumbersRoundTrip)
{
    using M = Data::Modality;
    for (auto [modality, name] :
         {std::pair{M::Unknown, "Unknown"}, std::pair{M::Ultrasound, "Ultrasound"}, std::pair{M::MRI, "MRI"},
          std::pair{M::CT, "CT"}, std::pair{M::Label, "Label"}, std::pair{M::Probability, "Probability"}}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(Data::modalityString(modality), name);
        EXPECT_EQ(Data::modalityFromString(name), modality);
        EXPECT_EQ(Data::modalityFromString(std::to_string(static_cast<int>(modality))), modality);
    }
    EXPECT_EQ(Data::modalityFromString(" mri"), M::MRI);
    Log::Capture capture;
    EXPECT_FALSE(Data::modalityFromString("Sonar").has_value());
    EXPECT_FALSE(Data::modalityFromString("11").has_value());
    EXPECT_TRUE(capture.contains("Unknown modality 'Sonar'", "Host.Data"));
}

TEST(Data, SwapRefusesOtherTypesAndMatricesInvert)
{
    PointCloud cloud(1, false, "c");
    Mesh mesh("m");
    Log::Capture capture;
    EXPECT_FALSE(cloud.swapWith(mesh));
    EXPECT_EQ(cloud.name(), "c");
    EXPECT_TRUE(capture.containsFragment("Cannot swap a Velmoria::PointCloud with a Velmoria::Mesh"));

    Eigen::Matrix4d fromWorld = Eigen::Matrix4d::Identity();
    fromWorld(0, 3) = 5;
    cloud.setMatrixFromWorld(fromWorld);
    EXPECT_EQ(cloud.matrixConvention(), 0);
    EXPECT_TRUE(cloud.matrix().isApprox(fromWorld.inverse()));
    EXPECT_DOUBLE_EQ(cloud.matrixToWorld()(0, 3), -5);
}
