// Every YAML example of docs/ is run here, so that a documented snippet cannot rot: a processing
// list builds operation by operation with no unknown key, a model file (a block with "Engine")
// loads and builds its processing lists, and a block that shows some keys on their own (a
// "LabelNames" form, a "Sampling" block) is at least YAML that converts whole.

#include "ml/model/ModelConfiguration.h"
#include "ml/operations/OperationsSequence.h"
#include "ml/operations/ProcessingSpecs.h"
#include "ml/operations/PropertiesYAML.h"
#include "ml/plugin/Registrations.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/String.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

struct Snippet
{
    std::string place; // "operations.md:103"
    std::string text;

    friend void PrintTo(Snippet const& snippet, std::ostream* out) { *out << snippet.place; }
};

// The ```yaml blocks of every Markdown file of docs/, in file and line order.
std::vector<Snippet> docSnippets()
{
    std::vector<std::filesystem::path> files;
    for (auto const& entry : std::filesystem::directory_iterator(VELMORIA_DOCS_DIR))
        if (entry.path().extension() == ".md")
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());

    std::vector<Snippet> snippets;
    for (auto const& file : files) {
        std::ifstream in(file);
        std::string line;
        int number = 0;
        Snippet* open = nullptr;
        while (std::getline(in, line)) {
            ++number;
            if (open) {
                if (String::startsWith(line, "```"))
                    open = nullptr;
                else
                    open->text += line + "\n";
            } else if (String::trimCopy(line) == "```yaml") {
                open = &snippets.emplace_back(
                    Snippet{file.filename().string() + ":" + std::to_string(number), std::string()});
            }
        }
    }
    return snippets;
}

std::vector<std::string> warningsOf(Log::Capture const& capture)
{
    std::vector<std::string> result;
    for (Log::Record const& record : capture.records())
        if (record.level >= Log::Warning)
            result.push_back(record.category + ": " + record.message);
    return result;
}

class DocSnippets : public ::testing::TestWithParam<Snippet>
{
protected:
    static void SetUpTestSuite() { registerOperations(); }
};

TEST_P(DocSnippets, RunAsDocumented)
{
    Snippet const& snippet = GetParam();
    Log::Capture capture;
    auto const tree = PropertiesYAML::createFromString(snippet.text);
    ASSERT_NE(tree, nullptr) << snippet.text;

    bool const isList = tree->name().empty() && tree->params().empty() && tree->subPropertiesCount() > 0 &&
                        tree->subProperties().front()->name() != "Engine" &&
                        !tree->findSubProperties("Engine") && !tree->findSubProperties("Sampling") &&
                        !tree->findSubProperties("LabelNames");
    if (tree->findSubProperties("Engine")) {
        Filesystem::TemporaryFile file(".yaml");
        ASSERT_TRUE(Filesystem::File(file.path()).writeText(snippet.text));
        ModelConfiguration const model(file.path().str());
        ASSERT_EQ(model.status(), 0) << model.errorMessage().value_or("") << "\n" << snippet.text;
        EXPECT_EQ(model.engine(), "torch");
        OperationsSequence const pre(model.getPreProcessingOptions());
        OperationsSequence const post(model.getPostProcessingOptions());
        EXPECT_FALSE(pre.error() || post.error());
    } else if (isList) {
        auto const specs = propertyToProcessingSpecs(*tree);
        ASSERT_FALSE(specs.empty()) << snippet.text;
        OperationsSequence const sequence(specs);
        EXPECT_FALSE(sequence.error().has_value()) << sequence.error()->message;
        EXPECT_EQ(sequence.getOperationNames().size(), specs.size());
    }
    EXPECT_EQ(warningsOf(capture), std::vector<std::string>{}) << snippet.text;
}

INSTANTIATE_TEST_SUITE_P(Docs, DocSnippets, ::testing::ValuesIn(docSnippets()), [](auto const& info) {
    std::string name = info.param.place;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
    return name;
});

// The extraction itself: if it found nothing, the table above would pass while testing nothing.
TEST(DocSnippetsExtraction, FindsTheExamplesOfEveryDocumentedFamily)
{
    auto const snippets = docSnippets();
    EXPECT_GE(snippets.size(), 10U);
    for (std::string const file : {"model-files.md", "operations.md", "sampling.md"})
        EXPECT_TRUE(std::any_of(snippets.begin(), snippets.end(), [&](Snippet const& s) {
            return String::startsWith(s.place, file + ":");
        })) << file;
}

} // namespace
