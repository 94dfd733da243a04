#include "ml/imagemath/ImgOps.h"

namespace Velmoria::ImageMath::ImgOps {

std::string fillSlots(std::string_view format, std::string const& operand)
{
    std::string result;
    result.reserve(format.size() + 2 * operand.size());
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '{' && i + 1 < format.size() && format[i + 1] == '}') {
            result += operand;
            ++i;
        } else {
            result += format[i];
        }
    }
    return result;
}

std::string add::evalString(std::string const& a, std::string const& b)
{
    return "(" + a + ")+(" + b + ")";
}
std::string minus::evalString(std::string const& a, std::string const& b)
{
    return "(" + a + ")-(" + b + ")";
}
std::string mult::evalString(std::string const& a, std::string const& b)
{
    return "(" + a + ")*(" + b + ")";
}
std::string divide::evalString(std::string const& a, std::string const& b)
{
    return "(" + a + ")/(" + b + ")";
}
std::string divideIfNotZero::evalString(std::string const& a, std::string const& b)
{
    return "(float(length(" + b + ") != 0.0) * (" + a + "))/(" + b + " + float(length(" + b + ") == 0.0))";
}
std::string min::evalString(std::string const& a, std::string const& b)
{
    return "min((" + a + "), (" + b + "))";
}
std::string max::evalString(std::string const& a, std::string const& b)
{
    return "max((" + a + "), (" + b + "))";
}
std::string pow2::evalString(std::string const& a)
{
    return "(" + a + ")*(" + a + ")";
}
std::string unaryMinus::evalString(std::string const& a)
{
    return "-(" + a + ")";
}
std::string abs::evalString(std::string const& a)
{
    return "abs(" + a + ")";
}
std::string exp::evalString(std::string const& a)
{
    return "exp(" + a + ")";
}
std::string length::evalString(std::string const& a)
{
    return "length( " + a + ")";
}
std::string equal::evalString(std::string const& a, std::string const& b)
{
    return "equal((" + a + "), (" + b + "))";
}
std::string notEqual::evalString(std::string const& a, std::string const& b)
{
    return "not(equal((" + a + "), (" + b + ")))";
}
std::string greater::evalString(std::string const& a, std::string const& b)
{
    return "greaterThan((" + a + "), (" + b + "))";
}
std::string greaterEqual::evalString(std::string const& a, std::string const& b)
{
    return "greaterThanEqual((" + a + "), (" + b + "))";
}
std::string less::evalString(std::string const& a, std::string const& b)
{
    return "lessThan((" + a + "), (" + b + "))";
}
std::string binaryAnd::evalString(std::string const& a, std::string const& b)
{
    return "(" + a + ") && (" + b + ")";
}

} // namespace Velmoria::ImageMath::ImgOps
