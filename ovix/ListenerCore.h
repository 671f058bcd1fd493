// The machinery behind one Listener: the service lock, the listening socket,
// the accept thread and the serial queue its events are delivered on.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "ovix/Object.h"
#include "ovix/SerialQueue.h"
#include "platform/Result.h"
#include "platform/linux/UniqueFd.h"

namespace ovix {

class ListenerCore : public std::enable_shared_from_this<ListenerCore> {
 public:
  using EventHandler = std::function<void(const Object& event)>;

  static platform::Result<std::shared_ptr<ListenerCore>> create(std::string_view serviceName);

  void setHandler(EventHandler handler);
  void resume() { queue_->resume(); }
  void cancel();
  void release();
  bool postTerminationImminent();

  const std::string& serviceName() const { return name_; }
  const std::string& socketPath() const { return path_; }

  ListenerCore(std::string name, std::string path, platform::UniqueFd lock,
               platform::UniqueFd socket);

 private:
  static void acceptLoop(std::shared_ptr<ListenerCore> self);
  void post(Object event, bool last);
  void deliver(const Object& event, bool last);
  void finish();

  const std::string name_;
  const std::string path_;
  platform::UniqueFd lock_;
  platform::UniqueFd socket_;
  platform::UniqueFd wake_;
  std::shared_ptr<SerialQueue> queue_;

  std::mutex mutex_;
  EventHandler handler_;
  bool cancelled_ = false;
  bool lastDelivered_ = false;
};

}  // namespace ovix
