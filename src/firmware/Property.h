#pragma once

#include <cassert>
#include <cstddef>

/// A value of another object that is read like a data member: reading it calls a getter of the owner.
/// Container is the class of the owner, ValueType that of the value. Kind is always 1 (read-only).
template <typename Container, typename ValueType, int Kind>
class property {
public:
    property() = default;
    property(Container* cObject, ValueType (Container::*pGet)()) : m_cObject(cObject), Get(pGet) {}

    /// Sets the object whose getter and setter are called.
    void setContainer(Container* cObject) { m_cObject = cObject; }

    /// Sets the owner's member function that takes a new value. The owners in this program have none.
    void setter(void (Container::*pSet)(ValueType value)) { Set = pSet; }

    /// Sets the owner's member function that returns the value.
    void getter(ValueType (Container::*pGet)()) { Get = pGet; }

    // The text that a failed assertion prints is fixed: it says NULL.
    // NOLINTBEGIN(modernize-use-nullptr)

    /// Passes value to the owner's setter. Without an owner or a setter the program ends with an assertion.
    ValueType operator=(const ValueType& value) {
        assert(m_cObject != NULL);
        assert(Set != NULL);
        (m_cObject->*Set)(value);
        return value;
    }

    /// The owner's current value. Without an owner or a getter the program ends with an assertion.
    operator ValueType() const {
        assert(m_cObject != NULL);
        assert(Get != NULL);
        return (m_cObject->*Get)();
    }

    // NOLINTEND(modernize-use-nullptr)

private:
    Container* m_cObject = nullptr;
    void (Container::*Set)(ValueType value) = nullptr;
    ValueType (Container::*Get)() = nullptr;
};
