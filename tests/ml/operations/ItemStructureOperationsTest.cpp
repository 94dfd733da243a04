// The item-structure operations: targets, renaming, removing, copying fields, label modality.

#include "ml/operations/catalogue/ItemStructureOperations.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/ImageSetFixtures.h"
#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/image/LabelDataComponent.h"

#include <gtest/gtest.h>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;

namespace {

DataItem threeFields()
{
    DataItem item;
    item.set("image", makeSet(2));
    item.set("label", makeSet(2));
    item.set("weights", makeSet(2));
    return item;
}

std::vector<std::string> fieldOrder(DataItem const& item)
{
    std::vector<std::string> names;
    for (auto const& [name, element] : item.elements())
        names.push_back(name);
    return names;
}

Properties keys(std::initializer_list<std::pair<char const*, std::vector<std::string>>> lists)
{
    Properties properties;
    for (auto const& [key, values] : lists)
        properties.setParam(key, values);
    return properties;
}

} // namespace

TEST(MarkAsTarget, TagsAndUntagsTheNamedFields)
{
    DataItem item = threeFields();
    MarkAsTargetOperation mark;
    ASSERT_TRUE(mark.configure(keys({{"apply_to", {"label", "weights"}}})));
    mark.process(item);
    EXPECT_FALSE(item.get("image")->isTarget());
    EXPECT_TRUE(item.get("label")->isTarget());
    EXPECT_TRUE(item.get("weights")->isTarget());

    UnmarkAsTargetOperation unmark;
    ASSERT_TRUE(unmark.configure(keys({{"apply_to", {"weights"}}})));
    unmark.process(item);
    EXPECT_TRUE(item.get("label")->isTarget());
    EXPECT_FALSE(item.get("weights")->isTarget());

    Log::Capture capture;
    MarkAsTargetOperation().process(item);
    EXPECT_TRUE(capture.contains("No field given in 'apply_to': nothing to do.", "ML.MarkAsTarget"));
    EXPECT_FALSE(item.get("image")->isTarget());
}

TEST(RenameAndRemove, RenameKeepsThePositionOfTheFieldAndRemoveDropsFields)
{
    DataItem item = threeFields();
    auto* labelElement = item.get("label");
    RenameOperation rename;
    ASSERT_TRUE(rename.configure(keys({{"source", {"label"}}, {"target", {"segmentation"}}})));
    rename.process(item);
    EXPECT_EQ(fieldOrder(item), (std::vector<std::string>{"image", "segmentation", "weights"}));
    EXPECT_EQ(item.get("segmentation"), labelElement);

    RemoveOperation remove;
    ASSERT_TRUE(remove.configure(keys({{"apply_to", {"weights", "image"}}})));
    remove.process(item);
    EXPECT_EQ(fieldOrder(item), (std::vector<std::string>{"segmentation"}));
}

TEST(Rename, RefusesToOverwriteAndToPairUnevenLists)
{
    DataItem item = threeFields();
    RenameOperation rename;
    ASSERT_TRUE(rename.configure(keys({{"source", {"label"}}, {"target", {"image"}}})));
    EXPECT_THROW(rename.process(item), OperationException);

    RenameOperation uneven;
    ASSERT_TRUE(uneven.configure(keys({{"source", {"label", "image"}}, {"target", {"x"}}})));
    EXPECT_THROW(uneven.process(item), OperationException);
    EXPECT_EQ(fieldOrder(item), (std::vector<std::string>{"image", "label", "weights"}));
}

TEST(Rename, MissingSourceIsUnexpectedBehaviour)
{
    DataItem item = threeFields();
    RenameOperation rename;
    ASSERT_TRUE(rename.configure(keys({{"source", {"mask"}}, {"target", {"x"}}})));
    Log::Capture capture;
    rename.process(item);
    EXPECT_TRUE(capture.contains(
        "Fields 'mask' do not exist in the input data item. Input fields are [image,label,weights].",
        "ML.Rename"));
    rename.setErrorOnUnexpectedBehaviour(true);
    EXPECT_THROW(rename.process(item), OperationException);
}

TEST(Copy, MakesAnIndependentCopyWithTheTargetTag)
{
    DataItem item = threeFields();
    item.get("label")->tagAsTarget();
    CopyOperation copy;
    ASSERT_TRUE(copy.configure(keys({{"source", {"label"}}, {"target", {"label_copy"}}})));
    copy.process(item);
    ASSERT_TRUE(item.contains("label_copy"));
    EXPECT_TRUE(item.get("label_copy")->isTarget());
    auto original = item.get<ImageElement>("label")->sis();
    auto duplicate = item.get<ImageElement>("label_copy")->sis();
    EXPECT_NE(duplicate->mem(0)->data(), original->mem(0)->data()) << "a copy must not share pixels";
    EXPECT_EQ(firstValue(*duplicate->get(1)), firstValue(*original->get(1)));
    EXPECT_TRUE(
        duplicate->get(1)->pixelToWorld({0, 0, 0}).isApprox(original->get(1)->pixelToWorld({0, 0, 0})));
    EXPECT_THROW(copy.process(item), OperationException) << "the target exists now";
}

TEST(SetLabelModality, MarksTargetsAsLabelMapsAndNamesLabels)
{
    DataItem item = threeFields();
    item.get("label")->tagAsTarget();
    SetLabelModalityOperation operation;
    ASSERT_TRUE(operation.configure(keys({{"label_names", {"background", "liver", "spleen"}}})));
    operation.process(item);

    auto label = item.get<ImageElement>("label")->sis();
    EXPECT_EQ(label->modality(), Data::Modality::Label);
    EXPECT_EQ(label->get(1)->modality(), Data::Modality::Label);
    auto const* names = label->components().get<LabelDataComponent>();
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(names->labelName(0), "background");
    EXPECT_EQ(names->labelName(2), "spleen");
    EXPECT_NE(item.get<ImageElement>("image")->sis()->modality(), Data::Modality::Label)
        << "by default only target fields become label maps";
}
