#pragma once

// PropertiesIO: the XML file form of a Properties tree.
//
//   <?xml version="1.0"?>
//   <propertyfile version="1.0" name="Root">
//       <param name="spacing" type="5">1 1 2.5</param>
//       <param name="apply_to" type="10">
//           <item>image</item>
//           <item>label</item>
//       </param>
//       <param name="none" type="10" list="true" />
//       <param name="device" type="9" attributes="values: 'A, B'">A</param>
//       <property name="Sub">...the same content, recursively...</property>
//   </propertyfile>
//
// - The root element is named by the caller ("propertyfile" by default) and carries the file
//   version and the tree's name (when not empty). A sub-tree is a <property>, named when its
//   name is not empty.
// - A <param> always has a name; "type" (decimal, see ParamType) is written when not 0 and
//   "attributes" (ValueText's attribute text) when there are any. A list value is a sequence of
//   <item> elements; an empty list, which has no item to show what it is, says list="true".
//   A reader takes a <param> with <item> children or list="true" as a list.
// - Text is kept exactly: leading and trailing blanks, line breaks (also "\r"; the reader does
//   not normalise line ends), quotes, markup characters, UTF-8. Neither writing format adds
//   whitespace inside a value. Text values cannot hold the character 0, which XML cannot carry.
// - A reader ignores comments and whitespace between elements, warns about and skips unknown
//   elements, and fails on anything it cannot map to the tree (text outside a <param>, an
//   element inside a value, a <param> without a name, a bad type or attribute text).
//
// Every failure returns false/null and logs ONE error line in "Host.PropertiesIO" that names
// the file and the reason (for XML syntax errors pugixml's description, the offset, line and
// column). Nothing here throws. Saving replaces the file atomically.

#include "host/core/Properties.h"

#include <memory>
#include <string>
#include <string_view>

namespace Velmoria {

class PropertiesIO
{
public:
    // The `format` of saving.
    enum Format : int
    {
        Indented = 0, // one element a line, indented by four blanks per level
        Compact = 1,  // no line breaks or indentation between elements
    };

    static constexpr char const* DefaultRootName = "propertyfile";
    static constexpr char const* FileVersion = "1.0";

    // `rootName` is the expected name of the root element; an empty one accepts any.
    static std::unique_ptr<Properties> loadFromXML(std::string const& path,
                                                   std::string const& rootName = DefaultRootName);
    // Replaces `out` on success and leaves it untouched on failure.
    static bool loadFromXML(Properties& out, std::string const& path,
                            std::string const& rootName = DefaultRootName);
    static std::unique_ptr<Properties> loadFromXMLString(std::string_view xml,
                                                         std::string const& rootName = DefaultRootName);
    static bool loadFromXMLString(Properties& out, std::string_view xml,
                                  std::string const& rootName = DefaultRootName);

    // `rootName` names the root element (an empty one means the default). Creates no folders.
    static bool saveToXML(Properties const& properties, std::string const& path, int format = Indented,
                          std::string const& rootName = DefaultRootName);
    static std::string saveToXMLString(Properties const& properties, int format = Indented,
                                       std::string const& rootName = DefaultRootName);
};

} // namespace Velmoria
