#pragma once

/// Which allocations of this thread fail, in a program that includes `FailingNew.h` in one file.
namespace kvx::test {

/// How many succeed before one fails, or all when `newsFailForGood`; negative: none
/// fails.
inline thread_local long newsBeforeFailure = -1;
inline thread_local bool newsFailForGood = false;
/// How many fail one after another; 1 again after that.
inline thread_local long newsToFail = 1;

/// Counts an allocation; true when it should fail.
inline bool nextFails() {
    const bool fails = newsBeforeFailure == 0;
    if (newsBeforeFailure > 0) --newsBeforeFailure;
    if (fails && !newsFailForGood && --newsToFail == 0) {
        newsBeforeFailure = -1;
        newsToFail = 1;
    }
    return fails;
}

}  // namespace kvx::test
