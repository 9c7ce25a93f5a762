#pragma once

#include <set>
#include <string>

#include "rv/message/SubjectView.h"
#include "rv/message/WireFormat.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::test {

/// What a follower of interest knows, and what it has been told since `said` was emptied.
class Told {
  public:
    /// Takes the nested message of a data message on "_RVD.INTEREST".
    void take(Bytes nested) {
        FieldCursor cursor(nested);
        for (WireField field; cursor.next(field) == FieldCursor::Step::kField;) {
            if (field.type == RVMSG_STRING) {
                takeText(std::string(field.text().value_or("")), field.isNamed("op"));
            } else if (const auto view = SubjectView::parse(field.data, field.size)) {
                const bool isAdded = field.isNamed("add");
                said += (isAdded ? " +" : " -") + view->text();
                isAdded ? void(known.insert(view->text())) : void(known.erase(view->text()));
            }
        }
    }
    /// False for a data message on another subject.
    bool takeMessage(Bytes message) {
        const Bytes subject = wire::readRouting(message).subject;
        const auto view = SubjectView::parse(subject.data(), subject.size());
        const auto data = findField(message, wire::field::kData);
        if (!view || view->text() != "_RVD.INTEREST" || !data) return false;
        take(data->bytes());
        return true;
    }

    std::set<std::string> known;
    bool isComplete = false;
    unsigned snapshots = 0;
    std::string daemon;
    std::string said;  ///< such as " snapshot +A.B complete -A.B"

  private:
    void takeText(const std::string& text, bool isOperation) {
        if (!isOperation) {
            daemon = text;
            return;
        }
        if (text != "change") said += ' ' + text;
        if (text == "complete") isComplete = true;
        if (text != "snapshot") return;
        known.clear();
        isComplete = false;
        ++snapshots;
    }
};

}  // namespace kvx::test
