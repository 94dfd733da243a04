#include "ml/data/ScoreFiles.h"

#include "host/core/ByteBuffer.h"
#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/image/LabelDataComponent.h"
#include "host/image/PixelType.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <optional>
#include <vector>

namespace Velmoria::ML::ScoreFiles {

namespace {

constexpr char const* kCategory = "ML.ScoreFiles";

enum class Format
{
    Json,
    Csv,
};

std::optional<Format> formatOf(std::string_view path)
{
    std::string const lower = String::toLowerCopy(path);
    if (String::endsWith(lower, ".json"))
        return Format::Json;
    if (String::endsWith(lower, ".csv"))
        return Format::Csv;
    return std::nullopt;
}

// The scores of every frame, as doubles; nullopt (logged) when a frame is not one pixel or the
// frames disagree on the number of classes.
std::optional<std::vector<std::vector<double>>> readScores(SharedImageSet const& vectors,
                                                           std::string const& path)
{
    std::vector<std::vector<double>> samples;
    for (int frame = 0; frame < vectors.size(); ++frame) {
        MemImage const* image = vectors.mem(frame);
        if (!image || image->dimensions() != Eigen::Vector3i(1, 1, 1)) {
            VELMORIA_LOG_ERROR(kCategory,
                               "Cannot write '{}': frame {} is not a vector of scores (1x1x1 pixels)", path,
                               frame);
            return std::nullopt;
        }
        if (!samples.empty() && image->channels() != static_cast<int>(samples.front().size())) {
            VELMORIA_LOG_ERROR(kCategory, "Cannot write '{}': frame {} has {} scores, frame 0 has {}", path,
                               frame, image->channels(), samples.front().size());
            return std::nullopt;
        }
        std::vector<double>& scores = samples.emplace_back(image->channels());
        visitPixelType(image->type(), [&](auto tag) {
            using T = decltype(tag);
            auto const* values = static_cast<T const*>(image->data());
            for (std::size_t c = 0; c < scores.size(); ++c)
                scores[c] = static_cast<double>(values[c]);
        });
    }
    return samples;
}

std::vector<std::string> classNames(SharedImageSet const& vectors, std::size_t count)
{
    auto const* labels = vectors.components().get<LabelDataComponent>();
    std::vector<std::string> names;
    for (std::size_t c = 0; c < count; ++c) {
        auto const label = labels ? labels->label(static_cast<int>(c)) : std::nullopt;
        names.push_back(label && !label->name.empty() ? label->name : std::to_string(c));
    }
    return names;
}

std::string toJson(std::vector<std::vector<double>> const& samples, std::vector<std::string> const& names)
{
    auto const object = [&](std::vector<double> const& scores) {
        // ordered_json keeps the classes in channel order, as the network wrote them.
        nlohmann::ordered_json sample = nlohmann::ordered_json::object();
        for (std::size_t c = 0; c < scores.size(); ++c)
            sample[names[c]] = scores[c];
        return sample;
    };
    nlohmann::ordered_json document;
    if (samples.size() == 1) {
        document = object(samples.front());
    } else {
        document = nlohmann::ordered_json::array();
        for (auto const& scores : samples)
            document.push_back(object(scores));
    }
    return document.dump(2) + "\n";
}

// RFC 4180: a field with a comma, a quote or a line break is quoted, its quotes doubled.
std::string csvField(std::string const& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (char const c : text)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

std::string toCsv(std::vector<std::vector<double>> const& samples, std::vector<std::string> const& names)
{
    std::vector<std::string> header;
    for (auto const& name : names)
        header.push_back(csvField(name));
    std::string text = String::join(header, ",") + "\n";
    for (auto const& scores : samples) {
        std::vector<std::string> row;
        for (double const score : scores)
            row.push_back(fmt::format("{}", score));
        text += String::join(row, ",") + "\n";
    }
    return text;
}

} // namespace

bool isScoreFile(std::string_view path)
{
    return formatOf(path).has_value();
}

bool write(SharedImageSet const& vectors, std::string const& path)
{
    auto const format = formatOf(path);
    if (!format) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot write '{}': scores are written as .json or .csv", path);
        return false;
    }
    if (vectors.size() == 0) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot write '{}': there are no scores to write", path);
        return false;
    }
    auto const samples = readScores(vectors, path);
    if (!samples)
        return false;
    auto const names = classNames(vectors, samples->front().size());
    std::string const text = *format == Format::Json ? toJson(*samples, names) : toCsv(*samples, names);
    // Filesystem logs the reason (missing folder, permissions, full disk) with the path.
    return Filesystem::writeFileAtomically(Filesystem::Path(path), ByteBufferView(std::string_view(text)));
}

} // namespace Velmoria::ML::ScoreFiles
