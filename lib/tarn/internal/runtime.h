// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <typeindex>
#include <utility>
#include <vector>

#include "slate/lazy.h"
#include "tarn/types.h"

namespace slate {
class Queue;
}
namespace zmq {
class context_t;
}

namespace tarn_internal {
/// Something that a runtime has one of, made when it is first needed, such as a thread that many objects
/// share.
class RuntimePart {
public:
    virtual ~RuntimePart() = default;
    /// Ends it, once, when the runtime ends. Others may still hold it then; it must not use the ZeroMQ
    /// context any more. Must not throw.
    virtual void end() = 0;
};

/// The parts of one runtime. Threads: any.
class RuntimeParts {
public:
    /// The part of that type, which `make` makes if there is none yet. Null once the runtime has ended. What
    /// `make` throws passes through. `make` must not ask for parts.
    template <class Part>
    std::shared_ptr<Part> get(const std::function<std::shared_ptr<Part>()>& make)
    {
        return std::static_pointer_cast<Part>(find_or_make(typeid(Part), [&] { return make(); }));
    }

    /// Ends all parts, the last one made first. None is made afterwards.
    void end();

private:
    std::shared_ptr<RuntimePart> find_or_make(std::type_index type,
                                              const std::function<std::shared_ptr<RuntimePart>()>& make);

    std::mutex mutex_; // guards the two below; held while a part is made, and not while one ends
    std::vector<std::pair<std::type_index, std::shared_ptr<RuntimePart>>> parts_;
    bool ended_ = false;
};

/// What a factory needs from the ZmqSubsystem of this process. Only factories look it up; everything below
/// them gets it as an argument.
struct Runtime {
    std::shared_ptr<zmq::context_t> context;
    std::shared_ptr<slate::Dictionary> settings;
    std::shared_ptr<slate::Lazy<slate::Queue>> queue;
    std::shared_ptr<RuntimeParts> parts;
};

/// The runtime of the present ZmqSubsystem. Without one nothing, and an error in the log that names
/// `function`.
std::optional<Runtime> find_runtime(std::string_view function);
} // namespace tarn_internal
