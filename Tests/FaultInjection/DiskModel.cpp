#include "Tests/FaultInjection/DiskModel.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <fcntl.h>

#include "VellicorLab/TemporaryDirectory.h"

namespace vellicor {

namespace {

namespace fs = std::filesystem;

template <typename... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
template <typename... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

std::string torn(const std::string& data) { return data.substr(0, data.size() / 2); }

bool coin(std::mt19937_64& random) { return (random() & 1) != 0; }

}  // namespace

void materialize(const DiskTree& tree, const std::string& place) {
  for (const auto& [path, content] : tree) {
    const fs::path entry = fs::path(place) / path;
    if (content) {
      writeFile(entry.string(), *content);
    } else {
      fs::create_directory(entry);
    }
  }
}

void DiskModel::Node::apply(const Change& change) {
  std::visit(Overloaded{
                 [this](const Write& write) {
                   const std::size_t end = write.offset + write.data.size();
                   if (content.size() < end) content.resize(end);
                   content.replace(write.offset, write.data.size(), write.data);
                 },
                 [this](const Truncate& truncate) { content.resize(truncate.size); },
                 [this](const Names& names) {
                   for (const auto& [name, node] : names.changes) {
                     entries.erase(name);
                     if (node) entries.emplace(name, *node);
                   }
                 },
             },
             change);
}

DiskModel::DiskModel(const std::string& root) : root_(root), rootNode_(load(root)) {}

DiskModel::NodeID DiskModel::add(bool isDirectory) {
  nodes_.push_back({.safe = {.isDirectory = isDirectory}, .current = {.isDirectory = isDirectory}});
  return nodes_.size() - 1;
}

DiskModel::NodeID DiskModel::load(const std::string& path) {
  const NodeID id = add(fs::is_directory(path));
  Node node = nodes_[id].safe;
  if (!node.isDirectory) {
    node.content = readFile(path);
  } else {
    for (const auto& entry : fs::directory_iterator(path)) {
      node.entries.emplace(entry.path().filename().string(), load(entry.path().string()));
    }
  }
  nodes_[id] = {.safe = node, .current = node};
  return id;
}

std::optional<DiskModel::Place> DiskModel::find(const std::string& path) const {
  if (path == root_) return Place{rootNode_, "", rootNode_};
  std::optional<Place> place;
  std::optional<NodeID> node = rootNode_;
  for (const fs::path& part : fs::path(path).lexically_relative(root_)) {
    if (!node || !nodes_[*node].current.isDirectory) return std::nullopt;
    const auto& entries = nodes_[*node].current.entries;
    const auto entry = entries.find(part.string());
    place = Place{*node, part.string(), entry == entries.end() ? std::nullopt : std::optional(entry->second)};
    node = place->node;
  }
  return place;
}

void DiskModel::change(NodeID node, Change change) {
  nodes_[node].current.apply(change);
  nodes_[node].pending.push_back(std::move(change));
}

bool DiskModel::apply(const FileCall& call) {
  if (call.result != "ok") return false;
  // A file without a name leaves no trace.
  const std::optional<Place> place = find(call.path);
  if (!place) return false;
  if (call.name == "open") return applyOpen(call, *place);
  if (call.name == "mkdir") {
    const NodeID made = add(true);
    change(place->directory, Names{{{place->name, made}}});
    return true;
  }
  return place->node && applyExisting(call, *place);
}

bool DiskModel::applyOpen(const FileCall& call, const Place& place) {
  if (!place.node && (call.flags & O_CREAT) != 0) {
    const NodeID made = add(false);
    change(place.directory, Names{{{place.name, made}}});
    return true;
  }
  if (!place.node || (call.flags & O_TRUNC) == 0) return false;
  change(*place.node, Truncate{0});
  return true;
}

bool DiskModel::applyExisting(const FileCall& call, const Place& place) {
  const NodeID node = *place.node;
  const std::optional<Place> other = call.otherPath.empty() ? std::nullopt : find(call.otherPath);
  if (call.name == "pwrite") {
    change(node, Write{static_cast<std::uint64_t>(call.offset), call.data});
    lastWritten_ = node;
  } else if (call.name == "ftruncate") {
    change(node, Truncate{static_cast<std::uint64_t>(call.offset)});
  } else if (call.name == "unlink" || call.name == "remove") {
    change(place.directory, Names{{{place.name, std::nullopt}}});
  } else if (call.name == "rename" && other && other->directory == place.directory) {
    change(place.directory, Names{{{place.name, std::nullopt}, {other->name, node}}});
  } else if (call.name == "exchange" && other && other->directory == place.directory) {
    change(place.directory, Names{{{place.name, other->node}, {other->name, node}}});
  } else if (call.name == "fsync") {
    nodes_[node].safe = nodes_[node].current;
    nodes_[node].pending.clear();
  } else if (call.name == "rename" && other) {
    // Each of the two directories may lose its part.
    change(other->directory, Names{{{other->name, node}}});
    change(place.directory, Names{{{place.name, std::nullopt}}});
  } else if (call.name == "rename" || call.name == "exchange") {
    throw std::runtime_error("not modelled: " + call.name + " " + call.path);
  } else {
    return false;
  }
  return true;
}

DiskModel::Node DiskModel::nodeAfter(NodeID id, Loss loss, std::mt19937_64& random) const {
  const StoredNode& stored = nodes_[id];
  const bool isDirectory = stored.current.isDirectory;
  Node node = stored.safe;
  switch (loss) {
    case Loss::nothing:
      return stored.current;
    case Loss::everything:
      return stored.safe;
    case Loss::bytesAndSizes:
      return isDirectory ? stored.current : stored.safe;
    case Loss::bytes:
      if (isDirectory) return stored.current;
      node.content.resize(stored.current.content.size());
      return node;
    case Loss::lastWriteTorn:
      for (std::size_t i = 0; i < stored.pending.size(); ++i) {
        const auto* write = std::get_if<Write>(&stored.pending[i]);
        const bool isLast = id == lastWritten_ && i + 1 == stored.pending.size();
        node.apply(write != nullptr && isLast ? Change(Write{write->offset, torn(write->data)})
                                              : stored.pending[i]);
      }
      return node;
    case Loss::atRandom: {
      const std::size_t kept = stored.pending.empty() ? 0 : random() % (stored.pending.size() + 1);
      for (std::size_t i = 0; i < stored.pending.size(); ++i) {
        const auto* write = std::get_if<Write>(&stored.pending[i]);
        if (isDirectory ? i >= kept : coin(random)) continue;
        node.apply(write != nullptr && coin(random) ? Change(Write{write->offset, torn(write->data)})
                                                    : stored.pending[i]);
      }
      return node;
    }
  }
  return node;
}

void DiskModel::collect(NodeID id, const std::string& prefix, Loss loss, std::mt19937_64& random,
                        DiskTree& tree) const {
  for (const auto& [name, child] : nodeAfter(id, loss, random).entries) {
    const std::string path = prefix + name;
    if (nodes_[child].current.isDirectory) {
      tree.emplace(path, std::nullopt);
      collect(child, path + "/", loss, random, tree);
    } else {
      tree.emplace(path, nodeAfter(child, loss, random).content);
    }
  }
}

DiskTree DiskModel::after(Loss loss, std::mt19937_64& random) const {
  DiskTree tree;
  collect(rootNode_, "", loss, random, tree);
  return tree;
}

}  // namespace vellicor
