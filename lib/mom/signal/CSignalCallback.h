#pragma once

#include "foundation/CCallbackBase.h"

/// Calls one member function of one object with one argument.
///
/// The object must outlive the callback. A copy calls the same object.
template <class Handler>
class CSignalCallback : public CCallbackBase {
  public:
    using Method = void (Handler::*)(int);

    CSignalCallback(Handler* object, Method method, int argument)
        : m_object(object), m_method(method), m_argument(argument) {}

    void operator()() override { (m_object->*m_method)(m_argument); }

    Handler* m_object;
    Method m_method;
    int m_argument;
};
