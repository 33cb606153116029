#pragma once

namespace velmar {
namespace kolto {

// Root of every message payload. Payloads are compared by identity only: two
// distinct objects are never "equal", whatever they hold.
class Object {
public:
    Object() = default;
    virtual ~Object();
    virtual bool equals(const Object& other) const;
};

}  // namespace kolto
}  // namespace velmar
