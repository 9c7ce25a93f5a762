#pragma once

#include <string>

#include "rva/BusCalls.h"
#include "rva/Feed.h"
#include "rva/HttpPages.h"
#include "rva/Listens.h"
#include "rva/Observations.h"
#include "rva/Queries.h"
#include "rva/Quota.h"

namespace kvx::rva {

/// The paths below `/api/`, as docs/http.md defines them: reads what clients want, and has it done.
/// Called on the server's thread.
class Api {
  public:
    /// All must outlive this object and the pages' server.
    Api(Observations& seen, Queries& queries, BusCalls& calls, Listens& listens, Feed& feed)
        : seen_(seen), queries_(queries), calls_(calls), listens_(listens), feed_(feed) {}

    void addTo(HttpPages& pages);

  private:
    void query(const HttpRequest& request, const HttpAnswerPtr& answer);
    void send(const HttpRequest& request, const HttpAnswerPtr& answer);
    void request(const HttpRequest& request, const HttpAnswerPtr& answer);
    void listen(const HttpRequest& request, const HttpAnswerPtr& answer);
    void events(const HttpRequest& request, const HttpAnswerPtr& answer);
    [[nodiscard]] std::shared_ptr<const void> stream(const HttpRequest& request,
                                                     const HttpAnswerPtr& answer) const;
    [[nodiscard]] bool isThere(const HttpAnswerPtr& answer) const;
    void tellWhereAway(const HttpAnswerPtr& answer) const;

    Observations& seen_;
    Queries& queries_;
    BusCalls& calls_;
    Listens& listens_;
    Feed& feed_;
    const Quota streams_{256};
};

}  // namespace kvx::rva
