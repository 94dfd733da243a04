// The plug-in base classes and registries that need no loaded library: VelmoriaLibPlugin's
// ownership of factories, PluginAutoRegistrationGuard, DataDisplayHandlerFactory,
// DataAnnotationFactory's defaults and SharedLibrary's failures.

#include "host/algorithm/Controller.h"
#include "host/algorithm/FactoryRegistry.h"
#include "host/core/Log.h"
#include "host/data/PointCloud.h"
#include "host/plugin/DataAnnotationFactory.h"
#include "host/plugin/DataDisplayHandler.h"
#include "host/plugin/PluginAutoRegistrationGuard.h"
#include "host/plugin/SharedLibrary.h"
#include "host/plugin/VelmoriaLibPlugin.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <stdexcept>

using namespace Velmoria;

namespace {

// ---------------------------------------------------------------------------------------------
// VelmoriaLibPlugin

int g_destroyedControllers = 0;
int g_destroyedAnnotations = 0;

class CountingControllerFactory : public AlgorithmControllerFactory
{
public:
    ~CountingControllerFactory() override { ++g_destroyedControllers; }
    std::unique_ptr<AlgorithmController> create(Algorithm*) const override { return nullptr; }
};

class CountingAnnotationFactory : public DataAnnotationFactory
{
public:
    CountingAnnotationFactory()
        : DataAnnotationFactory("DataAnnotation")
    {}
    ~CountingAnnotationFactory() override { ++g_destroyedAnnotations; }
    std::unique_ptr<Data> createDataAnnotation(std::string const&, Data&) const override { return nullptr; }
    std::vector<std::string> compatibleDataAnnotations(Data&) const override { return {}; }
    std::string dataDescription(Data const& data) const override
    {
        return dynamic_cast<PointCloud const*>(&data) ? "Cloud" : "";
    }
    std::string dataIconPath(Data const&) const override { return {}; }
    std::unique_ptr<Data> cloneData(Data const*) const override { return nullptr; }
};

class LibPlugin : public VelmoriaLibPlugin
{
public:
    int init() override { return 0; }
};

bool inRegistry(AlgorithmFactory const* factory)
{
    auto const factories = FactoryRegistry::get().factories();
    return std::find(factories.begin(), factories.end(), factory) != factories.end();
}

class VelmoriaLibPluginTest : public testing::Test
{
protected:
    void SetUp() override
    {
        g_destroyedControllers = 0;
        g_destroyedAnnotations = 0;
    }
};

TEST_F(VelmoriaLibPluginTest, RegistersTheAlgorithmFactoryAndOwnsAllThreeForItsLifetime)
{
    auto* algorithms = new AlgorithmFactory("Test", false);
    auto* controllers = new CountingControllerFactory;
    auto* annotations = new CountingAnnotationFactory;
    {
        LibPlugin plugin;
        plugin.registerFactories(algorithms, controllers, annotations);
        EXPECT_TRUE(inRegistry(algorithms));
        EXPECT_EQ(plugin.algorithmFactory(), algorithms);
        EXPECT_EQ(plugin.controllerFactory(), controllers);
        EXPECT_EQ(plugin.annotationFactory(), annotations);
        EXPECT_EQ(plugin.annotationFactory()->name(), "DataAnnotation");
        EXPECT_EQ(g_destroyedControllers + g_destroyedAnnotations, 0);
    }
    EXPECT_FALSE(inRegistry(algorithms));
    EXPECT_EQ(g_destroyedControllers, 1);
    EXPECT_EQ(g_destroyedAnnotations, 1);
}

TEST_F(VelmoriaLibPluginTest, RegisteringAgainReplacesTheFactoriesAndKeepsTheSameOnes)
{
    LibPlugin plugin;
    auto* first = new AlgorithmFactory("First", false);
    auto* controllers = new CountingControllerFactory;
    plugin.registerFactories(first, controllers, new CountingAnnotationFactory);

    auto* second = new AlgorithmFactory("Second", false);
    // The same controller factory again: kept, not destroyed; the annotation slot emptied.
    plugin.registerFactories(second, controllers, nullptr);

    EXPECT_FALSE(inRegistry(first)); // destroyed, so it left the registry
    EXPECT_TRUE(inRegistry(second));
    EXPECT_EQ(plugin.controllerFactory(), controllers);
    EXPECT_EQ(g_destroyedControllers, 0);
    EXPECT_EQ(plugin.annotationFactory(), nullptr);
    EXPECT_EQ(g_destroyedAnnotations, 1);

    // The same algorithm factory twice stays registered once.
    plugin.registerFactories(second, controllers, nullptr);
    auto const factories = FactoryRegistry::get().factories();
    EXPECT_EQ(std::count(factories.begin(), factories.end(), second), 1);
}

// ---------------------------------------------------------------------------------------------
// DataAnnotationFactory

TEST(DataAnnotationFactoryTest, DefaultAttributesAreNameAndModality)
{
    CountingAnnotationFactory factory;
    PointCloud cloud(3, false, "lung");
    cloud.setModality(Data::Modality::CT);
    EXPECT_EQ(factory.dataAttributes(cloud),
              (DataAnnotationFactory::Attributes{{"Name", "lung"}, {"Modality", "CT"}}));
    EXPECT_EQ(factory.dataDescription(cloud), "Cloud");
}

// ---------------------------------------------------------------------------------------------
// PluginAutoRegistrationGuard

long announcedCount(std::string const& id)
{
    auto const ids = PluginAutoRegistrationGuard::announcedPlugins();
    return std::count(ids.begin(), ids.end(), id);
}

TEST(PluginAutoRegistrationGuardTest, AnnouncesForItsLifetimeAndCountsCopies)
{
    {
        PluginAutoRegistrationGuard first([] { return std::string("Test.Guarded"); });
        EXPECT_EQ(first.id(), "Test.Guarded");
        EXPECT_TRUE(PluginAutoRegistrationGuard::isAnnounced("Test.Guarded"));
        {
            PluginAutoRegistrationGuard second([] { return std::string("Test.Guarded"); });
            EXPECT_EQ(announcedCount("Test.Guarded"), 2);
        }
        // One copy unloaded: the other is still there.
        EXPECT_EQ(announcedCount("Test.Guarded"), 1);
    }
    EXPECT_FALSE(PluginAutoRegistrationGuard::isAnnounced("Test.Guarded"));
}

struct BadIdCase
{
    std::string name;
    std::function<std::string()> function;
    std::string message;

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(BadIdCase const& c, std::ostream* os) { *os << c.name; }
};

class PluginAutoRegistrationGuardBadIdTest : public testing::TestWithParam<BadIdCase>
{};

TEST_P(PluginAutoRegistrationGuardBadIdTest, AnnouncesNothingAndSaysWhy)
{
    auto const& c = GetParam();
    Log::Capture capture;
    auto const before = PluginAutoRegistrationGuard::announcedPlugins();
    PluginAutoRegistrationGuard guard(c.function);
    EXPECT_EQ(guard.id(), "");
    EXPECT_EQ(PluginAutoRegistrationGuard::announcedPlugins(), before);
    EXPECT_TRUE(capture.contains(c.message, "Host.PluginAutoRegistrationGuard")) << c.message;
}

INSTANTIATE_TEST_SUITE_P(
    Functions, PluginAutoRegistrationGuardBadIdTest,
    testing::Values(BadIdCase{"Throws", []() -> std::string { throw std::runtime_error("no id today"); },
                              "The id function of a plug-in threw: no id today"},
                    BadIdCase{"Empty", [] { return std::string(); },
                              "A plug-in library announced itself without an id; it is not recorded"},
                    BadIdCase{"Null", nullptr,
                              "A plug-in library announced itself without an id; it is not recorded"}),
    [](auto const& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// DataDisplayHandlerFactory

class KindHandler : public DataDisplayHandler
{
public:
    explicit KindHandler(Data::Kind kind)
        : m_kind(kind)
    {}
    bool canDisplay(Data const& data) const override { return data.kind() == m_kind; }
    Data::Kind kind() const { return m_kind; }

private:
    Data::Kind m_kind;
};

class DataDisplayHandlerFactoryTest : public testing::Test
{
protected:
    void TearDown() override
    {
        for (auto const& name : DataDisplayHandlerFactory::registeredNames()) {
            if (name.starts_with("Test."))
                DataDisplayHandlerFactory::unregisterHandler(name);
        }
    }

    static DataDisplayHandlerFactory::Creator handlerOf(Data::Kind kind)
    {
        return [kind] { return std::make_unique<KindHandler>(kind); };
    }

    Log::Capture m_capture;
};

TEST_F(DataDisplayHandlerFactoryTest, RegistersCreatesAndReplacesByName)
{
    EXPECT_TRUE(DataDisplayHandlerFactory::registerHandler("Test.Mesh", handlerOf(Data::Kind::Mesh)));
    EXPECT_TRUE(DataDisplayHandlerFactory::registerHandler("Test.Cloud", handlerOf(Data::Kind::Mesh)));
    EXPECT_TRUE(DataDisplayHandlerFactory::isRegistered("Test.Cloud"));

    // Again: the new creator replaces the old one, in place.
    EXPECT_FALSE(DataDisplayHandlerFactory::registerHandler("Test.Cloud", handlerOf(Data::Kind::PointCloud)));
    EXPECT_TRUE(m_capture.contains(
        "Display handler 'Test.Cloud' was registered again; the new creator replaces the old one",
        "Host.DataDisplayHandlerFactory"));
    auto const names = DataDisplayHandlerFactory::registeredNames();
    auto const mesh = std::find(names.begin(), names.end(), "Test.Mesh");
    ASSERT_NE(mesh, names.end());
    ASSERT_NE(mesh + 1, names.end());
    EXPECT_EQ(*(mesh + 1), "Test.Cloud");

    auto handler = DataDisplayHandlerFactory::create("Test.Cloud");
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(static_cast<KindHandler&>(*handler).kind(), Data::Kind::PointCloud);

    EXPECT_TRUE(DataDisplayHandlerFactory::unregisterHandler("Test.Cloud"));
    EXPECT_FALSE(DataDisplayHandlerFactory::unregisterHandler("Test.Cloud"));
    EXPECT_FALSE(DataDisplayHandlerFactory::isRegistered("Test.Cloud"));
}

TEST_F(DataDisplayHandlerFactoryTest, HandlerForAsksHandlersInRegistrationOrder)
{
    DataDisplayHandlerFactory::registerHandler("Test.First", handlerOf(Data::Kind::Mesh));
    DataDisplayHandlerFactory::registerHandler("Test.Second", handlerOf(Data::Kind::PointCloud));
    DataDisplayHandlerFactory::registerHandler("Test.Third", handlerOf(Data::Kind::PointCloud));
    PointCloud cloud;
    auto handler = DataDisplayHandlerFactory::handlerFor(cloud);
    ASSERT_NE(handler, nullptr);
    EXPECT_TRUE(handler->canDisplay(cloud));
    DataDisplayHandlerFactory::unregisterHandler("Test.Second");
    DataDisplayHandlerFactory::unregisterHandler("Test.Third");
    EXPECT_EQ(DataDisplayHandlerFactory::handlerFor(cloud), nullptr);
}

struct BadHandlerCase
{
    std::string name;
    std::string handlerName;
    DataDisplayHandlerFactory::Creator creator;
    bool registers;
    std::string message;

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(BadHandlerCase const& c, std::ostream* os) { *os << c.name; }
};

class DataDisplayHandlerFactoryBadTest : public DataDisplayHandlerFactoryTest,
                                         public testing::WithParamInterface<BadHandlerCase>
{};

TEST_P(DataDisplayHandlerFactoryBadTest, GivesNullAndNamesTheHandler)
{
    auto const& c = GetParam();
    EXPECT_EQ(DataDisplayHandlerFactory::registerHandler(c.handlerName, c.creator), c.registers);
    EXPECT_EQ(DataDisplayHandlerFactory::create(c.handlerName), nullptr);
    EXPECT_TRUE(m_capture.contains(c.message, "Host.DataDisplayHandlerFactory"))
        << testing::PrintToString(m_capture.messages());
}

INSTANTIATE_TEST_SUITE_P(
    Handlers, DataDisplayHandlerFactoryBadTest,
    testing::Values(BadHandlerCase{"EmptyName", "",
                                   [] { return std::make_unique<KindHandler>(Data::Kind::Mesh); }, false,
                                   "Cannot register display handler '': the name is empty"},
                    BadHandlerCase{"EmptyCreator", "Test.NoCreator", nullptr, false,
                                   "Cannot register display handler 'Test.NoCreator': the creator is empty"},
                    BadHandlerCase{"CreatorReturnsNull", "Test.Null",
                                   [] { return std::unique_ptr<DataDisplayHandler>(); }, true,
                                   "The creator of display handler 'Test.Null' returned null"},
                    BadHandlerCase{"CreatorThrows", "Test.Throws",
                                   []() -> std::unique_ptr<DataDisplayHandler> {
                                       throw std::runtime_error("no display");
                                   },
                                   true, "The creator of display handler 'Test.Throws' threw: no display"},
                    BadHandlerCase{"UnknownName", "Test.Unknown", nullptr, false,
                                   "Unknown display handler 'Test.Unknown'"}),
    [](auto const& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// SharedLibrary

TEST(SharedLibraryTest, AMissingFileLeavesItClosedWithTheLoadersReason)
{
    SharedLibrary library;
    std::string error;
    EXPECT_FALSE(library.open("/nonexistent/libNothing.so", &error));
    EXPECT_FALSE(library.isOpen());
    EXPECT_NE(error.find("/nonexistent/libNothing.so"), std::string::npos) << error;
    EXPECT_EQ(library.symbol("anything", &error), nullptr);
    EXPECT_EQ(error, "the library is not loaded");
    EXPECT_FALSE(SharedLibrary::isLoaded("/nonexistent/libNothing.so"));
}

} // namespace
