// kelvorn-chain view's HTTP server: the page (chain/view/), the JSON API it
// is built on, and the event stream of the levels a LiveView samples.
//
// Every request carries the token in its path (/TOKEN/...): another user
// of the machine can reach a loopback port, but cannot watch or drive
// without the URL printed to the one who started the view. Anything else
// is answered 403.
//
// The server's threads only read the view and ask it to drive; the caller
// samples (publish()) on its own thread, so a slow or vanished client never
// holds up the sampling, and a closed tab costs its stream's thread one
// wake-up a second until the write to it fails.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "jtag/LiveView.h"

namespace chain {

class ViewServer {
  public:
    explicit ViewServer(jtag::LiveView& view);
    ~ViewServer();

    // Binds host:port ("0": a free port). False with *error saying why.
    bool bind(const std::string& host, const std::string& port, std::string* error);
    // "http://HOST:PORT/TOKEN/".
    std::string url() const;
    // Serves on threads of its own until stop(). The caller's signal mask
    // is theirs: block the ending signals before.
    void start();
    // What the last sample changed, to every event stream.
    void publish(const std::vector<jtag::LiveView::Change>& changes);
    // Ends every stream and the server; returns once its threads are gone.
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace chain
