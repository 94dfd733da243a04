#include "ml/data/SISBasedElement.h"

#include "host/core/Log.h"
#include "host/image/DataSourceComponent.h"
#include "host/image/DatasetLicenseComponent.h"

#include <algorithm>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.SISBasedElement";

// Appends frame `index` of `source` to `target` by shared pointer, with what belongs to that
// frame alone (its components and timestamp), so that a frame keeps its records wherever it
// goes. False (with the host's log line) when the set refuses the frame.
bool appendSharedFrame(SharedImageSet& target, SharedImageSet const& source, int index)
{
    if (!target.add(source.getShared(index)))
        return false;
    int const added = target.size() - 1;
    target.elementwiseComponents().get(added).assign(source.elementwiseComponents().get(index));
    if (source.hasTimestamps())
        target.setTimestamp(added, source.timestamp(index));
    return true;
}

} // namespace

SISBasedElement::SISBasedElement(std::shared_ptr<SharedImageSet> sis)
{
    if (!sis)
        throw DataElementException("Input SharedImageSet must be valid.");
    // The subclass checks its invariant in its own constructor: a virtual call here would not
    // reach it yet.
    assignSis(std::move(sis));
}

SISBasedElement::~SISBasedElement() = default;

void SISBasedElement::assignSis(std::shared_ptr<SharedImageSet> sis)
{
    m_sis = sis.get();
    m_content = std::move(sis);
}

void SISBasedElement::setContent(std::shared_ptr<Data> content)
{
    auto sis = std::dynamic_pointer_cast<SharedImageSet>(content);
    if (!sis)
        throw DataElementException("Can only set content of type SharedImageSet");
    setSis(std::move(sis));
}

void SISBasedElement::setSis(std::shared_ptr<SharedImageSet> sis)
{
    if (!sis)
        throw DataElementException("Input SharedImageSet must be valid.");
    checkFrames(*sis);
    assignSis(std::move(sis));
}

std::shared_ptr<SharedImageSet> SISBasedElement::sis() const
{
    return std::static_pointer_cast<SharedImageSet>(m_content);
}

int SISBasedElement::dimension() const
{
    if (!m_sis || m_sis->empty())
        return 0;
    SharedImage const* frame = m_sis->get(-1);
    if (!frame)
        frame = m_sis->get(0);
    if (frame->slices() > 1)
        return 3;
    return frame->height() > 1 ? 2 : 1;
}

std::size_t SISBasedElement::batchSize() const
{
    return m_sis ? static_cast<std::size_t>(m_sis->size()) : 0;
}

bool SISBasedElement::appendFrameOf(SISBasedElement const& source, std::size_t frame)
{
    if (!m_sis || frame >= source.batchSize()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot append frame {} of an element with {} frames", frame,
                           source.batchSize());
        return false;
    }
    return appendSharedFrame(*m_sis, *source.m_sis, static_cast<int>(frame));
}

std::vector<std::shared_ptr<SharedImageSet>> SISBasedElement::splitToSIS() const
{
    std::vector<std::shared_ptr<SharedImageSet>> result;
    if (batchSize() == 0)
        return result;

    auto const* sources = m_sis->components().get<DataSourceComponent>();
    auto const* licenses = m_sis->components().get<DatasetLicenseComponent>();
    auto const frames = static_cast<std::size_t>(m_sis->size());
    bool const sourcesPerFrame = sources && sources->sources().size() == frames;
    bool const licensesPerFrame = licenses && licenses->infos().size() == frames;

    result.reserve(frames);
    for (int i = 0; i < m_sis->size(); ++i) {
        std::shared_ptr<SharedImageSet> part = m_sis->clone(SharedImageSet::CloneOption::NoFrames);
        appendSharedFrame(*part, *m_sis, i);
        // The frameless clone copied the whole records; reduce them to this frame's entry.
        part->components().remove<DataSourceComponent>();
        part->components().remove<DatasetLicenseComponent>();
        if (sourcesPerFrame)
            part->components().add(std::make_unique<DataSourceComponent>(
                std::vector<DataSourceInfo>{sources->sources()[static_cast<std::size_t>(i)]}));
        if (licensesPerFrame)
            part->components().add(std::make_unique<DatasetLicenseComponent>(
                std::vector<DatasetInfo>{licenses->infos()[static_cast<std::size_t>(i)]}));
        result.push_back(std::move(part));
    }
    return result;
}

std::shared_ptr<SharedImageSet>
SISBasedElement::stackToSIS(std::vector<std::shared_ptr<SISBasedElement>> const& elements)
{
    if (elements.empty())
        return nullptr;
    if (std::any_of(elements.begin(), elements.end(), [](auto const& e) { return !e || !e->m_sis; })) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot stack an element without an image set");
        return nullptr;
    }

    std::shared_ptr<SharedImageSet> result =
        elements.front()->m_sis->clone(SharedImageSet::CloneOption::NoFrames);
    DataSourceComponent mergedSources;
    std::vector<DatasetInfo> mergedLicenses;
    bool anySources = false;
    bool anyLicenses = false;
    for (std::size_t e = 0; e < elements.size(); ++e) {
        SharedImageSet const& set = *elements[e]->m_sis;
        for (int i = 0; i < set.size(); ++i) {
            if (!appendSharedFrame(*result, set, i)) {
                VELMORIA_LOG_ERROR(kCategory, "Cannot stack frame {} of element {}: its pixel type differs",
                                   i, e);
                return nullptr;
            }
        }
        if (auto const* sources = set.components().get<DataSourceComponent>()) {
            mergedSources += *sources;
            anySources = true;
        }
        if (auto const* licenses = set.components().get<DatasetLicenseComponent>()) {
            mergedLicenses.insert(mergedLicenses.end(), licenses->infos().begin(), licenses->infos().end());
            anyLicenses = true;
        }
    }

    // The clone carries the first element's records only; replace them by the merged ones.
    result->components().remove<DataSourceComponent>();
    result->components().remove<DatasetLicenseComponent>();
    if (anySources)
        result->components().add(std::make_unique<DataSourceComponent>(std::move(mergedSources)));
    if (anyLicenses)
        result->components().add(std::make_unique<DatasetLicenseComponent>(std::move(mergedLicenses)));
    return result;
}

std::shared_ptr<SharedImageSet> SISBasedElement::cloneToSIS(CloneOptions options) const
{
    if (!m_sis)
        return std::make_shared<SharedImageSet>();
    return m_sis->clone(options == CloneOptions::Deep ? SharedImageSet::CloneOption::Deep
                                                      : SharedImageSet::CloneOption::NoFrames);
}

} // namespace Velmoria::ML
