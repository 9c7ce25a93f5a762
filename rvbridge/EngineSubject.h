#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "rv/message/SubjectView.h"

namespace kvx::bridge {

/// The subjects of one space at the engine. `*` and a last `>` of a pattern are the engine's
/// wildcards too; in every other token the bytes other than A-Z a-z 0-9 _ - stand as "=XX", and an
/// empty text as "=". Any thread.
class EngineSubjects {
  public:
    EngineSubjects(std::string_view service, std::string_view network);

    /// Whether an engine's subject is of this space.
    [[nodiscard]] bool has(std::string_view engineSubject) const {
        return engineSubject.starts_with(prefix_);
    }

    /// What to subscribe to for a listen: "kvx.S.N.s.<elements>".
    [[nodiscard]] std::string subscription(SubjectView pattern) const;
    /// Where a message is published. Without wildcards it is `subscription`; with wildcards, on
    /// which the engine does not publish, "kvx.S.N.w.<elements>", where they are escaped.
    [[nodiscard]] std::string publication(SubjectView subject) const;
    /// Where a message without wildcards is published that only `host` wants:
    /// "kvx.S.N.d.<host>.<elements>".
    [[nodiscard]] std::string direct(std::string_view host, SubjectView subject) const;
    /// What that host subscribes to: "kvx.S.N.d.<host>.>".
    [[nodiscard]] std::string directTo(std::string_view host) const;
    /// What every bridge subscribes to for messages on wildcard subjects: "kvx.S.N.w.>".
    [[nodiscard]] std::string wildcardMessages() const;

    /// Control messages to every bridge, and to those of one name.
    [[nodiscard]] std::string controlAll() const;
    [[nodiscard]] std::string controlTo(std::string_view host) const;

    /// The subject of which `engineSubject` is the `subscription`, the `publication` or `direct`;
    /// nothing for any other text. Takes only what these functions write, for whatever host.
    [[nodiscard]] std::optional<Subject> subjectOf(std::string_view engineSubject) const;

  private:
    std::string prefix_;  // "kvx.S.N."
};

}  // namespace kvx::bridge
