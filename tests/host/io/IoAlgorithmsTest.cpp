// The host's IO algorithms and IO::FileLoader: every format is found by the registry from a
// path, loads and saves through its algorithm, and the loader gives an empty list with a line
// naming the path whenever something is wrong.

#include "host/io/IoAlgorithms.h"

#include "tests/host/io/IoTestHelpers.h"

#include "host/algorithm/AlgorithmUtils.h"
#include "host/algorithm/FactoryRegistry.h"
#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"
#include "host/io/FileLoader.h"
#include "host/io/ImageFileIoAlgorithm.h"
#include "host/io/ImageFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace Velmoria {
namespace {

using ImageFiles::ImageFormat;
using IoTest::TempFolder;

struct KindCase
{
    std::string id;
    std::string name; // file (or folder) written by the test; empty: a folder of DICOM slices
};

std::vector<std::string> compatibleIds(std::string const& path)
{
    std::vector<std::string> ids;
    for (auto const* d : FactoryRegistry::get().compatibleIoDescriptors(path))
        ids.push_back(d->id);
    return ids;
}

class IoAlgorithmKinds : public ::testing::TestWithParam<KindCase>, protected TempFolder
{
protected:
    void SetUp() override { ImageFiles::registerIoAlgorithms(); }

    // A small uint8 picture every format can hold, saved through the algorithm of the case.
    std::string saveThroughAlgorithm()
    {
        KindCase const& c = GetParam();
        std::string const path = c.name.empty() ? file("series") : file(c.name);
        SharedImageSet images(IoTest::patternFrame<unsigned char>({6, 4, 1}, 1, Eigen::Matrix4d::Identity()));
        std::string const saver = c.name.empty() ? "DICOM.DicomIOAlgorithmFile" : c.id;
        std::string const target = c.name.empty() ? file("series/slice.dcm") : path;
        if (c.name.empty())
            IoTest::fs::create_directories(path);
        auto algorithm = FactoryRegistry::get().instantiateIoAlgorithm(saver, DataList{&images});
        EXPECT_TRUE(algorithm);
        if (!algorithm)
            return path;
        algorithm->setLocation(target);
        EXPECT_TRUE(AlgorithmUtils::execute(*algorithm));
        return path;
    }
};

TEST_P(IoAlgorithmKinds, TheRegistryFindsTheAlgorithmAndItLoadsWhatItSaved)
{
    std::string const path = saveThroughAlgorithm();
    std::vector<std::string> const ids = compatibleIds(path);
    EXPECT_NE(ids.end(), std::find(ids.begin(), ids.end(), GetParam().id)) << ::testing::PrintToString(ids);

    auto loader = FactoryRegistry::get().instantiateIoAlgorithm(GetParam().id, DataList());
    ASSERT_TRUE(loader);
    EXPECT_TRUE(loader->ioMode() & IoAlgorithm::Load);
    loader->setLocation(path);
    ASSERT_TRUE(AlgorithmUtils::execute(*loader));
    OwningDataList output = loader->takeOutput();
    ASSERT_EQ(1, output.size());
    auto images = output.extractFirstImage();
    ASSERT_TRUE(images);
    EXPECT_EQ(Eigen::Vector3i(6, 4, 1), images->get(0)->dimensions());
    EXPECT_TRUE(loader->takeOutput().empty()) << "the output is handed over once";

    // FileLoader takes the same way.
    OwningDataList loaded = IO::FileLoader::load(path, IO::FileLoader::LoadFlag::QuietChoice);
    ASSERT_EQ(1, loaded.size());
    EXPECT_EQ(Eigen::Vector3i(6, 4, 1), loaded.extractFirstImage()->get(0)->dimensions());
}

INSTANTIATE_TEST_SUITE_P(Ids, IoAlgorithmKinds,
                         ::testing::Values(KindCase{"IO.NiftiIo", "a.nii.gz"},
                                           KindCase{"IO.NiftiIo", "b.nii"}, KindCase{"IO.NrrdIo", "c.nrrd"},
                                           KindCase{"IO.MetaImageIo", "d.mha"}, KindCase{"IO.PngIo", "e.png"},
                                           KindCase{"IO.TiffIo", "f.tiff"}, KindCase{"IO.JpegIo", "g.jpg"},
                                           KindCase{"DICOM.DicomIOAlgorithmFile", "h.dcm"},
                                           KindCase{"DICOM.DicomIOAlgorithmFolder", ""}),
                         [](auto const& info) { return "case" + std::to_string(info.index); });

// ---------------------------------------------------------------------------------------------

class IoAlgorithmRules : public ::testing::Test, protected TempFolder
{
protected:
    void SetUp() override { ImageFiles::registerIoAlgorithms(); }
};

TEST_F(IoAlgorithmRules, RegistrationIsIdempotentAndSafeFromSeveralThreads)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] { ImageFiles::registerIoAlgorithms(); });
    for (auto& t : threads)
        t.join();
    auto const factories = FactoryRegistry::get().factories();
    EXPECT_EQ(1, std::count(factories.begin(), factories.end(), &ImageFiles::ioAlgorithmFactory()));
    EXPECT_EQ("IO", ImageFiles::ioAlgorithmFactory().category());
    EXPECT_EQ(8u, ImageFiles::ioAlgorithmFactory().ioAlgorithmDescriptors().size());
}

TEST_F(IoAlgorithmRules, DicomFilesAreFoundByMagicAndDicomdirIsRefusedWhenRead)
{
    std::string const slice = writeBytes("IM0001", std::string(128, '\0') + "DICM" + std::string(64, '\0'));
    EXPECT_EQ(std::vector<std::string>{"DICOM.DicomIOAlgorithmFile"}, compatibleIds(slice));
    EXPECT_EQ(std::vector<std::string>{"DICOM.DicomIOAlgorithmFolder"}, compatibleIds(folder()));

    std::string const dicomdir = writeBytes("DICOMDIR", std::string(128, '\0') + "DICM");
    EXPECT_EQ(std::vector<std::string>{"DICOM.DicomIOAlgorithmFile"}, compatibleIds(dicomdir));
    Log::Capture capture;
    EXPECT_TRUE(IO::FileLoader::load(dicomdir).empty());
    EXPECT_TRUE(capture.containsFragment("Could not read image file '" + dicomdir +
                                         "': DICOMDIR files (DICOM media directories) are not read; read the "
                                         "folder of a series instead"));
    EXPECT_TRUE(capture.contains("Could not load '" + dicomdir +
                                     "': DICOM.DicomIOAlgorithmFile failed with status Error",
                                 "Host.FileLoader"));
}

TEST_F(IoAlgorithmRules, SavingChecksTheInputAndTheFileName)
{
    SharedImageSet images(IoTest::patternFrame<float>({3, 3, 3}, 1, Eigen::Matrix4d::Identity()));
    SharedImageSet other(IoTest::patternFrame<float>({3, 3, 3}, 1, Eigen::Matrix4d::Identity()));
    FactoryRegistry const& registry = FactoryRegistry::get();
    Log::Capture capture;
    EXPECT_FALSE(registry.instantiateIoAlgorithm("IO.NrrdIo", DataList{&images, &other}));
    EXPECT_FALSE(registry.instantiateIoAlgorithm("DICOM.DicomIOAlgorithmFolder", DataList{&images}));

    auto saver = registry.instantiateIoAlgorithm("IO.NrrdIo", DataList{&images});
    ASSERT_TRUE(saver);
    EXPECT_EQ(1, saver->saveCount());
    saver->setLocation(file("wrong.png"));
    EXPECT_FALSE(AlgorithmUtils::execute(*saver));
    EXPECT_EQ(Algorithm::InvalidInput, saver->status());
    EXPECT_TRUE(capture.contains("Could not write '" + file("wrong.png") +
                                     "': IO.NrrdIo writes files named *.nrrd *.nhdr",
                                 "Host.ImageFileIoAlgorithm"));

    SharedImageSet picture(IoTest::patternFrame<float>({3, 3, 1}, 1, Eigen::Matrix4d::Identity()));
    auto jpeg = registry.instantiateIoAlgorithm("IO.JpegIo", DataList{&picture});
    ASSERT_TRUE(jpeg);
    jpeg->setLocation(file("float.jpg"));
    EXPECT_FALSE(AlgorithmUtils::execute(*jpeg));
    EXPECT_EQ(Algorithm::Error, jpeg->status());
    EXPECT_TRUE(capture.contains("Could not write image file '" + file("float.jpg") +
                                     "': pixel type 'float' cannot be stored in JPEG (uint8 only)",
                                 "Host.ImageFiles"));
}

TEST_F(IoAlgorithmRules, AFileLoaderReadsNoFolderAndTheFolderLoaderNoFile)
{
    std::string const path = file("x.nrrd");
    ASSERT_TRUE(ImageFiles::write(
        SharedImageSet(IoTest::patternFrame<short>({2, 2, 2}, 1, Eigen::Matrix4d::Identity())), path));
    auto folderLoader =
        FactoryRegistry::get().instantiateIoAlgorithm("DICOM.DicomIOAlgorithmFolder", DataList());
    ASSERT_TRUE(folderLoader);
    EXPECT_EQ(0, folderLoader->saveCount());
    folderLoader->setLocation(path);
    Log::Capture capture;
    EXPECT_FALSE(AlgorithmUtils::execute(*folderLoader));
    EXPECT_EQ(Algorithm::InvalidInput, folderLoader->status());
    EXPECT_TRUE(capture.contains("Could not read '" + path +
                                     "': DICOM.DicomIOAlgorithmFolder reads folders, not files",
                                 "Host.ImageFileIoAlgorithm"));
}

TEST(FileLoaderChoice, SeveralCompatibleAlgorithmsAreListedAndTheFirstIsUsed)
{
    // A second factory that also claims NRRD files, after the host's.
    ImageFiles::registerIoAlgorithms();
    AlgorithmFactory extra("Extra");
    AlgorithmFactory::Descriptor d;
    d.id = "Extra.NrrdIo";
    d.isIo = true;
    d.isCompatible = [](DataList const& data) { return data.empty(); };
    d.creator = [](DataList const&) -> std::unique_ptr<Algorithm> {
        return std::make_unique<ImageFileIoAlgorithm>(ImageFormat::Nrrd);
    };
    ASSERT_TRUE(extra.addDescriptor(d));
    FactoryRegistry::get().addFactory(&extra);

    TempFolder folder;
    std::string const path = folder.file("two.nrrd");
    ASSERT_TRUE(ImageFiles::write(
        SharedImageSet(IoTest::patternFrame<short>({2, 2, 2}, 1, Eigen::Matrix4d::Identity())), path));
    {
        Log::Capture capture;
        EXPECT_EQ(1, IO::FileLoader::load(path).size());
        EXPECT_TRUE(capture.contains("Several IO algorithms can load '" + path +
                                         "' (IO.NrrdIo, Extra.NrrdIo); using the first, IO.NrrdIo",
                                     "Host.FileLoader"));
    }
    {
        Log::Capture capture;
        EXPECT_EQ(1, IO::FileLoader::load(path, IO::FileLoader::LoadFlag::QuietChoice).size());
        EXPECT_TRUE(capture.messages(Log::Warning).empty());
    }
}

} // namespace
} // namespace Velmoria
