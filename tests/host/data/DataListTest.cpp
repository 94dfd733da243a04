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

class DataListTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        owned.add(std::make_unique<PointCloud>(1, false, "p1"));
        owned.add(std::make_unique<Mesh>("m1"));
        owned.add(std::make_unique<PointCloud>(2, false, "p2"));
        owned.add(std::make_unique<Pair>());
    }
    OwningDataList owned;
};

struct KindCase
{
    Data::Kind query;
    std::vector<std::string> names;
};

class DataListKinds : public DataListTest, public ::testing::WithParamInterface<KindCase>
{};

} // namespace

TEST_P(DataListKinds, GetAllFiltersByKindMask)
{
    std::vector<std::string> names;
    for (Data* d : owned.dataListView().getAll(GetParam().query))
        names.push_back(d->name());
    EXPECT_EQ(names, GetParam().names);
}

INSTANTIATE_TEST_SUITE_P(
    DataList, DataListKinds,
    ::testing::Values(KindCase{Data::Kind::Unknown, {"p1", "m1", "p2", ""}},
                      KindCase{Data::Kind::PointCloud, {"p1", "p2"}}, KindCase{Data::Kind::Mesh, {"m1"}},
                      KindCase{Data::kindMask({Data::Kind::Mesh, Data::Kind::Compound}), {"m1", ""}},
                      KindCase{Data::Kind::Image, {}}));

TEST_F(DataListTest, ViewIndexingAndPointClouds)
{
    DataList view = owned.dataListView();
    EXPECT_EQ(view.size(), 4);
    EXPECT_EQ(view[1]->name(), "m1");
    EXPECT_EQ(view.getItem(4), nullptr);
    EXPECT_EQ(view[-1], nullptr);
    auto clouds = view.getPointClouds();
    ASSERT_EQ(clouds.size(), 2u);
    EXPECT_EQ(clouds[1]->name(), "p2");

    DataList twice;
    twice.add(view);
    twice.add(twice);
    EXPECT_EQ(twice.size(), 8);
    Log::Capture capture;
    twice.add(nullptr);
    EXPECT_EQ(twice.size(), 8);
    EXPECT_TRUE(capture.contains("Ignoring a null data item", "Host.DataList"));
}

TEST_F(DataListTest, ExtractFirstLeavesOthersInPlace)
{
    auto mesh = owned.extractFirst<Mesh>();
    ASSERT_NE(mesh, nullptr);
    EXPECT_EQ(mesh->name(), "m1");
    EXPECT_EQ(owned.size(), 3);
    EXPECT_EQ(owned.extractFirst<Mesh>(), nullptr);
    EXPECT_EQ(owned.extractFirst<PointCloud>(Data::Kind::Mesh), nullptr) << "kind and type must both match";
    auto cloud = owned.extractFirst<PointCloud>(Data::Kind::PointCloud);
    ASSERT_NE(cloud, nullptr);
    EXPECT_EQ(cloud->name(), "p1");
    EXPECT_EQ(owned.getItem(0)->name(), "p2");
}

TEST_F(DataListTest, ExtractAllAndItem)
{
    OwningDataList clouds = owned.extractAll(Data::Kind::PointCloud);
    EXPECT_EQ(clouds.size(), 2);
    EXPECT_EQ(owned.size(), 2);
    EXPECT_EQ(owned.getItem(0)->name(), "m1");
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

class ModalityNames : public ::testing::TestWithParam<std::pair<Data::Modality, std::string>>
{};

TEST_P(ModalityNames, RoundTrip)
{
    auto [modality, name] = GetParam();
    EXPECT_EQ(Data::modalityString(modality), name);
    EXPECT_EQ(Data::modalityFromString(name), modality);
    EXPECT_EQ(Data::modalityFromString(std::to_string(static_cast<int>(modality))), modality);
}

INSTANTIATE_TEST_SUITE_P(Data, ModalityNames,
                         ::testing::Values(std::pair{Data::Modality::Unknown, "Unknown"},
                                           std::pair{Data::Modality::Ultrasound, "Ultrasound"},
                                           std::pair{Data::Modality::MRI, "MRI"},
                                           std::pair{Data::Modality::CT, "CT"},
                                           std::pair{Data::Modality::Label, "Label"},
                                           std::pair{Data::Modality::Probability, "Probability"}));

TEST(Data, ModalityValuesAreFixed)
{
    EXPECT_EQ(static_cast<int>(Data::Modality::Xray), 2);
    EXPECT_EQ(static_cast<int>(Data::Modality::NuclearMedicine), 5);
    EXPECT_EQ(static_cast<int>(Data::Modality::Photograph), 7);
    EXPECT_EQ(static_cast<int>(Data::Modality::Label), 8);
    EXPECT_EQ(static_cast<int>(Data::Modality::DistanceField), 9);
    EXPECT_EQ(Data::modalityFromString("mri"), Data::Modality::MRI);
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

// ---------------------------------------------------------------------------------------------
// Image queries

namespace {

std::unique_ptr<Velmoria::SharedImageSet> imageSet(std::string name, Velmoria::Data::Modality modality)
{
    auto set = std::make_unique<Velmoria::SharedImageSet>(std::make_shared<Velmoria::SharedImage>(
        Velmoria::ImageDescriptor(Velmoria::PixelType::UChar, Eigen::Vector3i(2, 2, 1), 1)));
    set->setName(std::move(name));
    set->setModality(modality);
    return set;
}

} // namespace

TEST(DataListImages, SelectByModalityAndLeaveOtherDataAlone)
{
    using Velmoria::Data;
    Velmoria::OwningDataList owning;
    owning.add(imageSet("ct", Data::Modality::CT));
    owning.add(std::make_unique<Velmoria::PointCloud>(3, false, "points"));
    owning.add(imageSet("labels", Data::Modality::Label));
    owning.add(imageSet("mr", Data::Modality::MRI));

    Velmoria::DataList view = owning.dataListView();
    EXPECT_EQ(view.getImages().size(), 3u);
    EXPECT_EQ(view.getImage()->name(), "ct");
    EXPECT_EQ(view.getImage(Data::Kind::Unknown, Data::Modality::Label)->name(), "labels");
    EXPECT_EQ(view.getImage(Data::Kind::Image, Data::Modality::PET), nullptr);
    EXPECT_TRUE(view.getImages(Data::Kind::PointCloud).empty());

    auto labels = owning.extractFirstImage(Data::Kind::Unknown, Data::Modality::Label);
    ASSERT_NE(labels, nullptr);
    EXPECT_EQ(labels->name(), "labels");
    auto rest = owning.extractAllImages();
    ASSERT_EQ(rest.size(), 2u);
    EXPECT_EQ(rest[0]->name(), "ct");
    EXPECT_EQ(rest[1]->name(), "mr");
    EXPECT_EQ(owning.size(), 1) << "the point cloud stays";
}
