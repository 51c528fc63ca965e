#pragma once
// Every change an entity publishes while the log lives, and an optional
// callback run at each one (the entity's state is that of the change).
#include <functional>
#include <vector>

#include "Kiln/Entity.h"

namespace testkit {

class ChangeLog : public Kiln::Notifiee {
 public:
  explicit ChangeLog(Kiln::Entity& e, std::function<void(const Kiln::Change&)> each = {})
      : entity_(e), each_(std::move(each)) {
    entity_.publisher()->subscribe(this);
    activeIs(true);
  }
  ~ChangeLog() override { entity_.publisher()->unsubscribe(this); }
  void onChange(const Kiln::Change& c) override {
    changes.push_back(c);
    if (each_) each_(c);
  }
  std::vector<Kiln::FieldId> fields() const {
    std::vector<Kiln::FieldId> f;
    for (auto& c : changes) f.push_back(c.field);
    return f;
  }
  std::vector<Kiln::Change> changes;

 private:
  Kiln::Entity& entity_;
  std::function<void(const Kiln::Change&)> each_;
};

}  // namespace testkit
