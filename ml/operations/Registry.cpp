#include "ml/operations/Registry.h"

#include "ml/data/DataItem.h"
#include "ml/operations/Singleton.h"

namespace Velmoria::ML {

template class Registry<ItemFunction>;
template class Registry<ItemPredicate>;

ItemFunctionRegistry& itemFunctionRegistry()
{
    return Singleton<ItemFunctionRegistry>::instance();
}

ItemPredicateRegistry& itemPredicateRegistry()
{
    return Singleton<ItemPredicateRegistry>::instance();
}

} // namespace Velmoria::ML
