#include "Pairs.h"

#include "DpValue.h"

namespace kelgw {
namespace {

struct Pair {
  int kelType;
  DpElementType element;
};

constexpr Pair pairs[] = {
    {1, DPELEMENT_BIT},     {2, DPELEMENT_32BIT},     {3, DPELEMENT_INT},       {4, DPELEMENT_INT},
    {5, DPELEMENT_INT},     {6, DPELEMENT_FLOAT},     {7, DPELEMENT_FLOAT},     {8, DPELEMENT_TEXT},
    {10, DPELEMENT_DYNBIT}, {20, DPELEMENT_DYN32BIT}, {30, DPELEMENT_DYNINT},   {40, DPELEMENT_DYNINT},
    {50, DPELEMENT_DYNINT}, {60, DPELEMENT_DYNFLOAT}, {70, DPELEMENT_DYNFLOAT}, {80, DPELEMENT_DYNTEXT},
};

}  // namespace

bool kelFeeds(int kelType, DpElementType elementType) {
  for (const Pair& pair : pairs) {
    if (pair.kelType == kelType) {
      return pair.element == elementType;
    }
  }
  return false;
}

std::string_view elementTypeFedBy(int kelType) {
  for (const Pair& pair : pairs) {
    if (pair.kelType == kelType) {
      return typeName(pair.element);
    }
  }
  return "no element";
}

}  // namespace kelgw
