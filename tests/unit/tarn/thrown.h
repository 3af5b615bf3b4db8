// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <string>
#include <typeinfo>

#include "slate/log.h"
#include "support/log_capture.h"

namespace tarn_test {
/// The text of the exception that an action throws, if it is of exactly this class.
template <class E, class Action>
std::string thrown(Action action)
{
    try {
        action();
    }
    catch (const std::exception& error) {
        if (typeid(error) == typeid(E))
            return error.what();
        return std::string("an exception of another class: ") + typeid(error).name() + ": " + error.what();
    }
    return "no exception";
}

/// The same, where the text must also have been logged as an error, once and as the only line.
template <class E, class Action>
std::string logged_and_thrown(Action action)
{
    const LogCapture log;
    const std::string text = thrown<E>(action);
    if (log.lines().size() != 1 || !log.has(slate::ErrorLevel, text))
        return "not logged exactly once: " + text;
    return text;
}

/// The same, where nothing may have been logged.
template <class E, class Action>
std::string silently_thrown(Action action)
{
    const LogCapture log;
    const std::string text = thrown<E>(action);
    if (!log.lines().empty())
        return "logged: " + text;
    return text;
}
} // namespace tarn_test
