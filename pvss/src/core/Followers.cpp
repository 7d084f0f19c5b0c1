#include "core/Followers.h"

#include <algorithm>
#include <utility>

#include "log/Log.h"
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
  if (left.attributes.invalid != right.attributes.invalid ||
      left.attributes.unreadable != right.attributes.unreadable) {
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
        Slot& made = follower->slots.emplace_back();
        const Catalogue::Element& element = catalogue_.at(id.getEl());
        made.state.attributes.element = id.getEl();
        made.typeSeen = element.type;
        made.type = element.type != DPELEMENT_NOELEMENT ? element.type : element.lastType;
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
  answered(follower, 0, states.data());
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
      answered(follower, sequence, position);
    } else if (follower->life == Life::checking) {
      checked(follower, sequence, position);
    }
    position += follower->slots.size();
  }
}

void Followers::take(Slot& slot, ElementState state) {
  const ElementId element = slot.state.attributes.element;
  slot.state = std::move(state);
  slot.state.attributes.element = element;
  slot.sequence = 0;
  slot.bytes = slot.state.attributes.value ? sizeOf(*slot.state.attributes.value) : 0;
}

void Followers::answered(const FollowerPtr& pointer, std::uint64_t sequence, ElementState* states) {
  Follower& follower = *pointer;
  for (Slot& slot : follower.slots) {
    take(slot, std::move(*states++));
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
  if (std::exchange(follower.again, false)) {
    checkAgain(pointer);
  }
}

void Followers::checked(const FollowerPtr& pointer, std::uint64_t sequence, ElementState* states) {
  Follower& follower = *pointer;
  follower.life = Life::following;
  follower.asOf = sequence;
  const bool distrusted = std::exchange(follower.distrusted, false);
  bool shows = std::exchange(follower.mustShow, false) || distrusted;
  for (Slot& slot : follower.slots) {
    ElementState& state = *states++;
    if (slot.sequence > sequence) {
      continue;  // a newer change was seen already
    }
    shows = shows || (differences(slot.state, state) & slot.wanted) != 0;
    take(slot, std::move(state));
  }
  if (shows) {
    push(follower, Delivery::Kind::hotLink);
  }
  if (std::exchange(follower.again, false)) {
    checkAgain(pointer);
  }
}

void Followers::checkAgain(const FollowerPtr& follower) {
  follower->mustShow = true;
  if (follower->life == Life::following) {
    follower->life = Life::checking;
    toAsk_.push_back(follower);
  } else {
    follower->again = true;  // what is under way may be of before
  }
}

bool Followers::apply(Follower& follower, std::uint32_t slotIndex, const ElementAttributes& attributes,
                      std::int64_t timeMs, std::uint64_t sequence) {
  Slot& slot = follower.slots[slotIndex];
  ElementAttributes& mine = slot.state.attributes;
  std::uint8_t touched = attributes.mask;
  slot.sequence = sequence;
  if ((attributes.mask & attributeValue) != 0) {
    if (std::exchange(mine.unreadable, attributes.unreadable) != attributes.unreadable) {
      touched |= attributeInvalid;  // it is shown as invalid, whatever the flag says
    }
    mine.value = attributes.value;
    slot.bytes = mine.value ? sizeOf(*mine.value) : 0;
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
  return (touched & slot.wanted) != 0;
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
    if (follower->life == Life::following) {
      follower->distrusted = false;  // all of it is true as of this change
    }
    push(*follower, Delivery::Kind::hotLink);
  }
}

void Followers::catalogueChanged(ElementId element) {
  if (element >= interests_.size()) {
    return;
  }
  const DpElementType now = catalogue_.typeOf(element);
  bool said = false;
  for (const Interest& interest : interests_[element]) {
    Follower& follower = *interest.follower;
    Slot& slot = follower.slots[interest.slot];
    const bool otherType = now != slot.typeSeen;
    if (otherType) {
      const bool putRight = isLateList(follower, slot, now);
      if (putRight) {
        slot.type = now;
      }
      if (!std::exchange(said, true)) {
        sayChange(element, slot.typeSeen, now, putRight);
      }
      slot.typeSeen = now;
      take(slot, ElementState());  // the store has dropped it too
    }
    if (follower.life == Life::starting) {
      follower.again = follower.again || otherType;
      continue;
    }
    const bool isBack = otherType && now == slot.type && slot.wanted != 0;
    if (isBack) {
      checkAgain(interest.follower);
    }
    if (slot.wantsAddress || (otherType && !isBack && slot.wanted != 0)) {
      push(follower, Delivery::Kind::hotLink);
    }
  }
}

// Connected by itself is what a list of names is, and those who wait for one take no other value.
bool Followers::isLateList(const Follower& follower, const Slot& slot, DpElementType now) {
  return !follower.list && slot.type != DPELEMENT_DYNTEXT && now == DPELEMENT_DYNTEXT;
}

void Followers::sayChange(ElementId element, DpElementType before, DpElementType now, bool putRight) const {
  const std::string& name = catalogue_.nameOf(element);
  if (putRight) {
    log::info("pvss", "{} is of type {} now: it is taken for a list of names", name, typeWord(now));
    return;
  }
  if (now == DPELEMENT_NOELEMENT) {
    log::warn("pvss", "{} was deleted: whoever follows it gets no value of it any more", name);
  } else if (before == DPELEMENT_NOELEMENT) {
    log::info("pvss", "{} exists again, as {}: who followed it as such gets its values again", name,
              typeWord(now));
  } else {
    log::warn(
        "pvss",
        "{} changed its type from {} to {}: whoever followed it before gets no value of it as long as it "
        "has the new type, and has to connect again (restart the gateway)",
        name, typeWord(before), typeWord(now));
  }
}

Standing Followers::standing(const Follower& follower, const Slot& slot) const {
  const ElementAttributes& mine = slot.state.attributes;
  if (follower.isConnect) {  // a read takes the element as it is
    if (catalogue_.typeOf(mine.element) != slot.type ||
        (mine.value && mine.value->isA() != variableTypeOf(slot.type))) {
      return Standing::gone;
    }
    if (mine.unreadable && !follower.list) {
      return Standing::gone;  // a list of names is not to pass for an empty one
    }
  }
  return mine.unreadable || follower.distrusted ? Standing::unsure : Standing::sound;
}

std::size_t Followers::distrust() {
  std::size_t count = 0;
  for (const FollowerPtr& follower : connects_) {
    const bool wasAnswered = follower->life == Life::following || follower->life == Life::checking;
    if (follower->list && wasAnswered && !std::exchange(follower->distrusted, true)) {
      push(*follower, Delivery::Kind::hotLink);
      ++count;
    }
  }
  return count;
}

void Followers::trustAgain() {
  for (const FollowerPtr& follower : connects_) {
    if (follower->distrusted && follower->life == Life::following) {
      follower->distrusted = false;
      push(*follower, Delivery::Kind::hotLink);
    }  // what is being read again is called back with its answer
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
      const Slot& slot = follower.slots[item.slot];
      delivery.items.push_back(captureState(item.id, slot.state, catalogue_, standing(follower, slot)));
      delivery.bytes += delivery.items.back().value ? slot.bytes : 0;
    } else {
      delivery.items.push_back(captureAddress(item.id, catalogue_));
    }
  }
  delivery.bytes += sizeof(Delivery) + delivery.items.size() * sizeof(CapturedItem);
  ready_(std::move(delivery));
}

}  // namespace pvss
