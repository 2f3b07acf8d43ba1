#pragma once

#include <cassert>
#include <cstddef>

/// A value of another object that is read like a data member: reading calls the owner's getter.
/// Container is the owning class, ValueType what is read, Kind always 1 (read-only views).
/// The owner sets itself and the getter in its constructor; a setter exists in the form only and stays empty.
template <typename Container, typename ValueType, int Kind>
class property {
public:
    property() : m_cObject(nullptr), Set(nullptr), Get(nullptr) {}

    /// Names the owner, on which getter and setter are called.
    void setContainer(Container* cObject) { m_cObject = cObject; }

    /// Names the owner's member function that takes a new value.
    void setter(void (Container::*pSet)(ValueType value)) { Set = pSet; }

    /// Names the owner's member function that returns the value.
    void getter(ValueType (Container::*pGet)()) { Get = pGet; }

    // A failed assertion prints its text, and that text is fixed: it says NULL.
    // NOLINTBEGIN(modernize-use-nullptr)

    /// Hands value to the owner's setter; without an owner or a setter the program ends with an assertion.
    ValueType operator=(const ValueType& value) {
        assert(m_cObject != NULL);
        assert(Set != NULL);
        (m_cObject->*Set)(value);
        return value;
    }

    /// The owner's current value; without an owner or a getter the program ends with an assertion.
    operator ValueType() const {
        assert(m_cObject != NULL);
        assert(Get != NULL);
        return (m_cObject->*Get)();
    }

    // NOLINTEND(modernize-use-nullptr)

private:
    Container* m_cObject;
    void (Container::*Set)(ValueType value);
    ValueType (Container::*Get)();
};
