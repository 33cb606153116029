#include "framework/Object.h"

namespace velmar {
namespace kolto {

Object::~Object() = default;

bool Object::equals(const Object& other) const { return this == &other; }

}  // namespace kolto
}  // namespace velmar
