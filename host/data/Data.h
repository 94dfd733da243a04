#pragma once

// Data: the polymorphic base of everything a DataList holds (image sets, point clouds, meshes,
// compounds of these).
//
// Every Data has a name, a modality, a placement in the world and a DataComponentList.
//
// Kind: values are bits, so that a query can ask for several kinds at once
// (DataList::getAll(Kind::PointCloud | Kind::Mesh) is written with kindMask()). Kind::Unknown
// (0) in a query selects everything; a Data reports exactly one bit.
//   0 Unknown / any, 1 Image (an image set), 2 PointCloud, 4 Mesh, 8 Compound, 16 Graph,
//   32 Annotation, 64 Other.
//
// Modality: fixed numbers, stored in files: 0 Unknown, 1 Ultrasound, 2 Xray, 3 MRI, 4 CT,
// 5 NuclearMedicine, 6 PET, 7 Photograph, 8 Label (a label map), 9 DistanceField,
// 10 Probability. modalityString() gives the enumerator's name; modalityFromString() reads it
// back in any case, and also the number.
//
// Placement: the object's own coordinates (millimetres; for images centred on the image) map
// to world coordinates (patient LPS) by a 4x4 matrix. matrixConvention() says what matrix()
// holds: 0 (the convention of every class here) means matrix() IS matrixToWorld(); 1 means it
// is matrixFromWorld() (for subclasses that store the inverse, e.g. tracking data). The
// to/from-world accessors hide the convention from callers.
//
// Data is not copyable (images may be huge; copies are explicit, via clone() of subclasses);
// swapWith() exchanges the whole content of two objects of the same type.

#include "host/data/AlignedBox.h"
#include "host/data/DataComponentList.h"

#include <Eigen/Core>
#include <optional>
#include <string>
#include <string_view>

namespace Velmoria {

class Data
{
public:
    enum class Kind : int
    {
        Unknown = 0,
        Image = 1,
        PointCloud = 2,
        Mesh = 4,
        Compound = 8,
        Graph = 16,
        Annotation = 32,
        Other = 64,
    };

    enum class Modality : int
    {
        Unknown = 0,
        Ultrasound = 1,
        Xray = 2,
        MRI = 3,
        CT = 4,
        NuclearMedicine = 5,
        PET = 6,
        Photograph = 7,
        Label = 8,
        DistanceField = 9,
        Probability = 10,
    };

    Data();
    explicit Data(std::string name);
    Data(Data const&) = delete;
    Data& operator=(Data const&) = delete;
    virtual ~Data();

    virtual Kind kind() const = 0;

    // "MRI", "Label", ...; "Unknown" also for values outside the enumeration.
    static std::string modalityString(Modality modality);
    // The inverse of modalityString, any case, or the number; nullopt with a warning otherwise.
    static std::optional<Modality> modalityFromString(std::string_view text);
    // A query mask of several kinds: kindMask({Kind::PointCloud, Kind::Mesh}).
    static Kind kindMask(std::initializer_list<Kind> kinds);
    // True when a Data of kind `kind` is selected by the query `query` (Unknown selects all).
    static bool kindMatches(Kind kind, Kind query);

    virtual Modality modality() const { return m_modality; }
    virtual void setModality(Modality modality) { m_modality = modality; }
    std::string const& name() const { return m_name; }
    void setName(std::string name) { m_name = std::move(name); }

    // 0: matrix() is to-world; 1: matrix() is from-world. See above.
    virtual int matrixConvention() const { return 0; }
    // Virtual so that containers can answer from their parts (an image set: its focus frame).
    virtual Eigen::Matrix4d matrix() const { return m_matrix; }
    virtual void setMatrix(Eigen::Matrix4d const& matrix) { m_matrix = matrix; }
    Eigen::Matrix4d matrixToWorld() const;
    Eigen::Matrix4d matrixFromWorld() const;
    void setMatrixToWorld(Eigen::Matrix4d const& matrix);
    void setMatrixFromWorld(Eigen::Matrix4d const& matrix);

    // The world-coordinate box around the content; empty when there is none.
    virtual Geometry::AlignedBox bounds() const { return {}; }
    // One line for people: "PointCloud 'lung' (1200 points, Unknown)".
    virtual std::string describe() const;
    // True for data that annotates other data (markers, boxes) rather than being data itself.
    virtual bool isAnnotationType() const { return false; }

    DataComponentList& components() { return m_components; }
    DataComponentList const& components() const { return m_components; }

    // Exchanges everything (name, modality, matrix, components and the subclass's content)
    // with `other`. False, with an error line, when the dynamic types differ.
    bool swapWith(Data& other);

protected:
    // Exchanges the subclass's own members; `other` has the same dynamic type.
    virtual void swapContent(Data& /*other*/) {}

private:
    std::string m_name;
    Modality m_modality = Modality::Unknown;
    Eigen::Matrix4d m_matrix = Eigen::Matrix4d::Identity();
    DataComponentList m_components;
};

constexpr Data::Kind operator|(Data::Kind a, Data::Kind b)
{
    return static_cast<Data::Kind>(static_cast<int>(a) | static_cast<int>(b));
}

} // namespace Velmoria
