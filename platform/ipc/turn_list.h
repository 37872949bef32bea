#pragma once

namespace corvane {

/// The part of a node by which it stands in a TurnList.
class Turn {
 public:
  bool is_in_list() const { return next_ != nullptr; }

 private:
  template <class Node>
  friend class TurnList;

  Turn* previous_ = nullptr;
  Turn* next_ = nullptr;
};

/// Nodes in the order of their turns. They derive from Turn, each is in one list at most, and they must leave it
/// before they are destroyed. The list owns nothing, and no call allocates or searches.
template <class Node>
class TurnList {
 public:
  TurnList() { end_.previous_ = end_.next_ = &end_; }
  TurnList(const TurnList&) = delete;
  TurnList& operator=(const TurnList&) = delete;

  bool empty() const { return end_.next_ == &end_; }
  /// The first node, and the one after another; null where there is none.
  Node* first() const { return node_at(end_.next_); }
  Node* after(const Node& node) const { return node_at(static_cast<const Turn&>(node).next_); }

  void push_back(Node& node) {
    Turn& turn = node;
    turn.previous_ = end_.previous_;
    turn.next_ = &end_;
    end_.previous_->next_ = &turn;
    end_.previous_ = &turn;
  }
  void remove(Node& node) {
    Turn& turn = node;
    turn.previous_->next_ = turn.next_;
    turn.next_->previous_ = turn.previous_;
    turn.previous_ = turn.next_ = nullptr;
  }
  void move_to_end(Node& node) {
    remove(node);
    push_back(node);
  }

 private:
  Node* node_at(Turn* turn) const { return turn == &end_ ? nullptr : static_cast<Node*>(turn); }

  Turn end_;  ///< stands before the first node and behind the last
};

}  // namespace corvane
