#include "host/core/Platform.h"

#include "host/core/Random.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

using namespace Velmoria;

namespace {

struct LocalType
{};

struct NameCase
{
    std::type_info const* type;
    char const* name;
};

class PlatformTypeName : public ::testing::TestWithParam<NameCase>
{};

} // namespace

TEST_P(PlatformTypeName, IsReadable)
{
    EXPECT_EQ(Platform::demangleTypeName(*GetParam().type), GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
    Types, PlatformTypeName,
    ::testing::Values(
        NameCase{&typeid(int), "int"}, NameCase{&typeid(unsigned long), "unsigned long"},
        NameCase{&typeid(Random::Generator), "Velmoria::Random::Generator"},
        NameCase{&typeid(std::vector<int>), "std::vector<int, std::allocator<int> >"},
        NameCase{&typeid(double const*), "double const*"},
        NameCase{&typeid(LocalType), "(anonymous namespace)::LocalType"},
        NameCase{&typeid(std::map<int, float>*),
                 "std::map<int, float, std::less<int>, std::allocator<std::pair<int const, float> > >*"}));

TEST(Platform, TypeNameDropsReferencesAndTopLevelConst)
{
    EXPECT_EQ(Platform::typeName<Random::Pcg64Engine>(), "Velmoria::Random::Pcg64Engine");
    EXPECT_EQ(Platform::typeName<Random::Pcg64Engine const&>(), "Velmoria::Random::Pcg64Engine");
    EXPECT_EQ(Platform::typeName<float[3]>(), "float [3]");
}

TEST(Platform, InvalidMangledNamesComeBackUnchanged)
{
    EXPECT_EQ(Platform::demangle("not a mangled name"), "not a mangled name");
    EXPECT_EQ(Platform::demangle("_Z"), "_Z");
    EXPECT_EQ(Platform::demangle(""), "");
    EXPECT_EQ(Platform::demangle(nullptr), "");
    EXPECT_EQ(Platform::demangle("i"), "int");
}
