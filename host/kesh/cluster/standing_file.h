/// The file kesh.standing beside the library's records: what this node is to the cluster. It shares the records' fate.
///
///     line 1   new, joined, member or reformed
///     line 2   identity of the cluster
///     line 3   per node, 1 to 16, the message id up to which this node does not say that it lacks a payload of that
///              node: it may have held it on a disk that it lost
///     line 4   of a reformed node, if there are any: "without" and the nodes whose stores are lost for good
#pragma once

#include <optional>
#include <string>

#include "cluster/hello.h"

namespace kesh
{

struct kept_standing {
  standing stands = standing::is_new;
  message_ids held{};
  uint32_t without = 0;  ///< bit node - 1

  bool operator==(const kept_standing &) const = default;
};

std::string standing_text(const kept_standing &kept, const std::string &identity);
/// Nothing if it is cut, or of another identity.
std::optional<kept_standing> standing_read(const std::string &text, const std::string &identity);

/// Not synchronised.
class standing_file
{
public:
  /// `records`: the directory.
  standing_file(const std::string &records, const cluster_identity &cluster);

  /// Nothing if there is no file. One that cannot be read, or is of another cluster, is no absence: then `error` says
  /// so, and who takes this node for one without a standing may let it forget what it promised.
  std::optional<kept_standing> read(std::string &error) const;
  /// Durably. False: `error` says why.
  bool write(const kept_standing &kept, std::string &error) const;

private:
  std::string path_;
  std::string identity_;
};

/// For `kesh configure`, before it resets the library's records: this node is a new one then. False: `error` says why.
bool forget_standing(std::string &error, const std::string &records);

}  // namespace kesh
