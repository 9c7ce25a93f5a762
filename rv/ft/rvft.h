#pragma once

#include "platform/Export.h"
#include "rv/session/rv_Session.h"

/// Fault-tolerance groups: of the members of a group that hear one another, the best-ranked
/// `activeGoal` are active. A higher weight ranks first, then the earlier joining, then the smaller
/// member id. Loop thread only, except `rvft_ErrorText`.

using rvft_MemberId = struct rvft_Member_*;

/// The actions. Preparing comes only with a preparation interval, and may come again without an
/// activation in between when a better-ranked member has joined meanwhile.
enum { RVFT_PREPARE_TO_ACTIVATE = 1, RVFT_ACTIVATE = 2, RVFT_DEACTIVATE = 3 };

/// Runs on the loop thread, never inside `rvft_Join`. May leave the group and close the session.
using rvft_Action = void (*)(rv_Session, const char* group, int action, void* closure);

/// Joins `group` and starts inactive.
///
/// `heartbeatMs` is the interval at which the member announces itself; all members of a group
/// should use the same. A member activates when fewer than `activeGoal` better-ranked ones have
/// been heard for `activateMs`, counted from its joining at first; it is told to prepare
/// `prepareMs` before, or not at all when that is 0. An active member that hears `activeGoal`
/// better-ranked active ones, or has been without a daemon for `activateMs`, deactivates; the
/// latter no sooner than its loop runs, which a round of attempts to reconnect blocks.
///
/// 0; 1 for a null or empty group, a null id or action, a goal or heartbeat interval of 0, or an
/// activation interval that is not longer than the heartbeat's or is shorter than the
/// preparation's; 2 for a null or closed session; 3 without memory; 4 when this session is a member
/// already; 6 when the group's name does not fit a subject or the session cannot listen or has no
/// timers.
KVX_API int rvft_Join(rv_Session session, rvft_MemberId* id, const char* group, unsigned weight,
                      unsigned activeGoal, unsigned long heartbeatMs, unsigned long prepareMs,
                      unsigned long activateMs, rvft_Action action, void* closure);

/// Announces the leave, so that the next in rank takes over at once, and frees the member; its
/// action is not called any more. Closing the session leaves too. 5 for an id that is not a current
/// member.
KVX_API int rvft_Leave(rvft_MemberId id);

/// 1 while no other member can have taken this one's place: the condition for acting as an active
/// one, to be asked before each act. On one daemon at most `activeGoal` members are active and
/// fresh at a time.
///
/// 0 once the process, its loop or its link stood still for the activation interval, until the
/// member has heard what its group said meanwhile (after a lost link another activation interval);
/// from the activation until its announcement has come back; while `activeGoal` others are active;
/// and for an id that is not a current member. Costs a look-up.
KVX_API int rvft_IsFresh(rvft_MemberId id);

/// The text of a code of `rvft_Join` and `rvft_Leave`; empty for another one. `session` may be
/// null.
KVX_API const char* rvft_ErrorText(rv_Session session, int code);
