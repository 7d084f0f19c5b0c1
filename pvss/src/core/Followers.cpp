#include "core/Followers.h"

#include <algorithm>
#include <utility>

#include "pvss/WaitForAnswer.h"

namespace pvss {

namespace {

// As many elements as one question to the store asks for; one follower's elements are never split.
constexpr std::size_t elementsPerRequest = 512;

bool sameShared(const SharedValue& left, const SharedValue& right) {
  return left == right || (left && right && sameValue(*left, *right));
}

// The attribute bits in which the states differ, times included.
std::uint8_t differences(const ElementState& left, const ElementState& right) {
  unsigned bits = 0;
  if (left.valueTimeMs != right.valueTimeMs || !sameShared(left.attributes.value, right.attributes.value)) {
    bits |= attributeValue;
  }
  if (left.attributes.invalid != right.attributes.invalid) {
    bits |= attributeInvalid;
  }
  if (left.attributes.userBit1 != right.attributes.userBit1) {
    bits |= attributeUserBit1;
  }
  if (left.attributes.userBit2 != right.attributes.userBit2) {
    bits |= attributeUserBit2;
  }
  return static_cast<std::uint8_t>(bits);
}

}  // namespace

Followers::FollowerPtr Followers::make(const DpIdentList& ids, WaitForAnswer* target) {
  auto follower = std::make_shared<Follower>();
  follower->target = target;
  follower->items.reserve(ids.getNumberOfItems());
  ++made_;
  places_.resize(std::max(places_.size(), catalogue_.size()));
  for (const DpIdentifier& id : ids) {
    Item item;
    item.id = id;
    const AttributeCode code = attributeOf(id);
    if (id.getEl() < places_.size() && !id.isNull() && code != AttributeCode::none) {
      Place& place = places_[id.getEl()];
      if (place.follower != made_) {
        place = {made_, static_cast<std::uint32_t>(follower->slots.size())};
        follower->slots.emplace_back().state.attributes.element = id.getEl();
      }
      item.slot = place.slot;
      Slot& slot = follower->slots[item.slot];
      slot.wanted = static_cast<std::uint8_t>(slot.wanted | touchingBits(code));
      slot.wantsAddress = slot.wantsAddress || !needsState(code);
    }
    follower->items.push_back(item);
  }
  return follower;
}

void Followers::connect(const DpIdentList& ids, bool list, WaitForAnswer* target) {
  FollowerPtr follower = make(ids, target);
  follower->isConnect = true;
  follower->list = list;
  follower->hotLinks = target->isA() == WaitForAnswer::KIND_HOTLINK;
  if (follower->hotLinks) {
    connects_.push_back(follower);
    for (std::uint32_t slot = 0; slot < follower->slots.size(); ++slot) {
      const ElementId element = follower->slots[slot].state.attributes.element;
      if (element >= interests_.size()) {
        interests_.resize(std::max<std::size_t>(catalogue_.size(), element + 1));
      }
      interests_[element].push_back({follower, slot});
    }
  }
  start(follower);
}

void Followers::read(const DpIdentList& ids, WaitForAnswer* target) {
  start(make(ids, target));
}

void Followers::start(const FollowerPtr& follower) {
  const bool asks = std::any_of(follower->slots.begin(), follower->slots.end(),
                                [](const Slot& slot) { return slot.wanted != 0; });
  if (asks) {
    toAsk_.push_back(follower);
    return;
  }
  // Nothing of it is in the store: the catalogue answers.
  std::vector<ElementState> states(follower->slots.size());
  answered(*follower, 0, states.data());
}

void Followers::forget(const WaitForAnswer* target) {
  const auto end = [target](const FollowerPtr& follower) {
    if (follower->target != target) {
      return false;
    }
    follower->life = Life::ended;
    follower->target = nullptr;
    return true;
  };
  for (const FollowerPtr& follower : connects_) {
    if (end(follower)) {
      for (const Slot& slot : follower->slots) {
        std::erase_if(interests_[slot.state.attributes.element],
                      [&follower](const Interest& interest) { return interest.follower == follower; });
      }
    }
  }
  std::erase_if(connects_, [](const FollowerPtr& follower) { return follower->life == Life::ended; });
  for (auto& [number, request] : requests_) {
    std::for_each(request.followers.begin(), request.followers.end(), end);
  }
  std::erase_if(toAsk_,
                [&end](const FollowerPtr& follower) { return end(follower) || follower->target == nullptr; });
}

void Followers::forEachTarget(const std::function<void(WaitForAnswer&)>& visit) const {
  const auto visitOne = [&visit](const FollowerPtr& follower) {
    if (follower->target != nullptr) {
      visit(*follower->target);
    }
  };
  std::for_each(connects_.begin(), connects_.end(), visitOne);
  std::for_each(toAsk_.begin(), toAsk_.end(), visitOne);
  for (const auto& [number, request] : requests_) {
    std::for_each(request.followers.begin(), request.followers.end(), visitOne);
  }
}

void Followers::flush(const Ask& ask) {
  while (!toAsk_.empty()) {
    Request request;
    while (!toAsk_.empty() &&
           (request.elements.empty() ||
            request.elements.size() + toAsk_.front()->slots.size() <= elementsPerRequest)) {
      FollowerPtr follower = std::move(toAsk_.front());
      toAsk_.pop_front();
      for (const Slot& slot : follower->slots) {
        request.elements.push_back(slot.state.attributes.element);
      }
      request.followers.push_back(std::move(follower));
    }
    const std::uint64_t number = ++lastRequest_;
    const Request& kept = requests_.emplace(number, std::move(request)).first->second;
    ask(number, kept.elements);
  }
}

void Followers::snapshot(std::uint64_t request, std::uint64_t sequence, std::vector<ElementState> states) {
  const auto found = requests_.find(request);
  if (found == requests_.end()) {
    return;  // asked before the link was lost; asked again since
  }
  const Request answer = std::move(found->second);
  requests_.erase(found);
  states.resize(answer.elements.size());
  ElementState* position = states.data();
  for (const FollowerPtr& follower : answer.followers) {
    if (follower->life == Life::starting) {
      answered(*follower, sequence, position);
    } else if (follower->life == Life::checking) {
      checked(*follower, sequence, position);
    }
    position += follower->slots.size();
  }
}

void Followers::answered(Follower& follower, std::uint64_t sequence, ElementState* states) {
  for (Slot& slot : follower.slots) {
    const ElementId element = slot.state.attributes.element;
    slot.state = std::move(*states++);
    slot.state.attributes.element = element;
    slot.sequence = 0;
  }
  follower.asOf = sequence;
  follower.life = follower.isConnect && follower.hotLinks ? Life::following : Life::ended;
  push(follower, Delivery::Kind::answer);
  if (follower.life == Life::ended) {
    return;
  }
  if (follower.list) {
    push(follower, Delivery::Kind::hotLink);
  }
  std::vector<std::shared_ptr<const Change>> held;
  held.swap(follower.held);
  for (const auto& change : held) {
    if (change->sequence <= sequence) {
      continue;
    }
    bool shows = false;
    for (const ElementAttributes& attributes : change->elements) {
      for (std::uint32_t slot = 0; slot < follower.slots.size(); ++slot) {
        if (follower.slots[slot].state.attributes.element == attributes.element) {
          shows = apply(follower, slot, attributes, change->timeMs, change->sequence) || shows;
        }
      }
    }
    if (shows) {
      push(follower, Delivery::Kind::hotLink);
    }
  }
}

void Followers::checked(Follower& follower, std::uint64_t sequence, ElementState* states) {
  follower.life = Life::following;
  follower.asOf = sequence;
  bool shows = false;
  for (Slot& slot : follower.slots) {
    ElementState& state = *states++;
    if (slot.sequence > sequence) {
      continue;  // a newer change was seen already
    }
    shows = shows || (differences(slot.state, state) & slot.wanted) != 0;
    const ElementId element = slot.state.attributes.element;
    slot.state = std::move(state);
    slot.state.attributes.element = element;
    slot.sequence = 0;
  }
  if (shows) {
    push(follower, Delivery::Kind::hotLink);
  }
}

bool Followers::apply(Follower& follower, std::uint32_t slotIndex, const ElementAttributes& attributes,
                      std::int64_t timeMs, std::uint64_t sequence) {
  Slot& slot = follower.slots[slotIndex];
  ElementAttributes& mine = slot.state.attributes;
  slot.sequence = sequence;
  if ((attributes.mask & attributeValue) != 0) {
    mine.value = attributes.value;
    slot.state.valueTimeMs = timeMs;
  }
  if ((attributes.mask & attributeInvalid) != 0) {
    if (mine.invalid != attributes.invalid) {
      slot.state.invalidTimeMs = timeMs;
    }
    mine.invalid = attributes.invalid;
  }
  if ((attributes.mask & attributeUserBit1) != 0) {
    mine.userBit1 = attributes.userBit1;
  }
  if ((attributes.mask & attributeUserBit2) != 0) {
    mine.userBit2 = attributes.userBit2;
  }
  return (attributes.mask & slot.wanted) != 0;
}

void Followers::changed(const Change& change) {
  touched_.clear();
  ++changeCount_;
  std::shared_ptr<const Change> copy;
  for (const ElementAttributes& attributes : change.elements) {
    if (attributes.element >= interests_.size()) {
      continue;
    }
    for (const Interest& interest : interests_[attributes.element]) {
      Follower& follower = *interest.follower;
      if (follower.life == Life::starting) {
        if (follower.touchedBy != changeCount_) {
          follower.touchedBy = changeCount_;
          if (!copy) {
            copy = std::make_shared<const Change>(change);
          }
          follower.held.push_back(copy);
        }
        continue;
      }
      if (change.sequence <= follower.asOf) {
        continue;
      }
      const bool shows = apply(follower, interest.slot, attributes, change.timeMs, change.sequence);
      if (shows && follower.touchedBy != changeCount_) {
        follower.touchedBy = changeCount_;
        touched_.emplace_back(&follower, true);
      }
    }
  }
  for (const auto& [follower, shows] : touched_) {
    push(*follower, Delivery::Kind::hotLink);
  }
}

void Followers::catalogueChanged(ElementId element) {
  if (element >= interests_.size()) {
    return;
  }
  const bool gone = catalogue_.typeOf(element) == DPELEMENT_NOELEMENT;
  for (const Interest& interest : interests_[element]) {
    Follower& follower = *interest.follower;
    Slot& slot = follower.slots[interest.slot];
    if (gone) {
      slot.state = ElementState();
      slot.state.attributes.element = element;
    }
    if (slot.wantsAddress && follower.life != Life::starting) {
      push(follower, Delivery::Kind::hotLink);
    }
  }
}

void Followers::linkLost() {
  // The oldest go first again.
  std::deque<FollowerPtr> again;
  for (auto& [number, request] : requests_) {
    for (FollowerPtr& follower : request.followers) {
      if (follower->life != Life::ended) {
        again.push_back(std::move(follower));
      }
    }
  }
  requests_.clear();
  toAsk_.insert(toAsk_.begin(), again.begin(), again.end());
}

void Followers::readAgain() {
  linkLost();
  for (const FollowerPtr& follower : connects_) {
    follower->asOf = 0;
    follower->held.clear();
    for (Slot& slot : follower->slots) {
      slot.sequence = 0;
    }
    if (follower->life == Life::following) {
      follower->life = Life::checking;
      toAsk_.push_back(follower);
    }
  }
}

void Followers::push(const Follower& follower, Delivery::Kind kind) {
  Delivery delivery;
  delivery.target = follower.target;
  delivery.kind = kind;
  delivery.last = follower.life == Life::ended;
  delivery.items.reserve(follower.items.size());
  for (const Item& item : follower.items) {
    if (needsState(attributeOf(item.id)) && item.slot < follower.slots.size()) {
      delivery.items.push_back(captureState(item.id, follower.slots[item.slot].state, catalogue_));
    } else {
      delivery.items.push_back(captureAddress(item.id, catalogue_));
    }
  }
  ready_(std::move(delivery));
}

}  // namespace pvss
