#pragma once

#include <string>
#include <string_view>
#include <vector>

/// A topic that can be published to: 1 to 512 bytes of UTF-8 without controls, '+' and '#', which
/// does not begin with '$'.
bool isTopicName(std::string_view topic);

/// A name of a device or a group: 1 to 64 letters, digits, '-', '_' and '.'.
bool isNodeName(std::string_view name);

/// A name that a device may have: no level of the topics has it for itself.
bool isDeviceName(std::string_view name);

/// The topics of one device.
class Topics {
public:
    Topics(std::string root, std::string device, std::vector<std::string> groups);

    /// Where commands come from: its own, those for all and for its groups.
    std::vector<std::string> commands() const;

    bool isCommand(std::string_view topic) const;

    std::string status() const { return own("status"); }
    std::string metrics() const { return own("metrics"); }
    std::string event() const { return own("event"); }
    std::string watch() const { return own("watch"); }

    /// Whether an answer may be published there: anywhere, but below the root only in the branch
    /// for answers. So nobody can have an answer become a command or a status of another device.
    bool mayAnswer(std::string_view topic) const;

    const std::string& device() const { return device_; }
    const std::vector<std::string>& groups() const { return groups_; }

private:
    std::string own(std::string_view last) const { return root_ + "/" + device_ + "/" + std::string(last); }

    std::string root_;
    std::string device_;
    std::vector<std::string> groups_;
};

std::string allTopic(const std::string& root);
std::string groupTopic(const std::string& root, const std::string& group);
std::string deviceTopic(const std::string& root, const std::string& device);
std::string statusTopic(const std::string& root, const std::string& device);
/// The branch for answers, without the name at its end.
std::string answerBranch(const std::string& root);
