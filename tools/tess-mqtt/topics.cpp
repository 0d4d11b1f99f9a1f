#include "tools/tess-mqtt/topics.h"

#include <algorithm>
#include <mosquitto.h>
#include <utility>

namespace {

constexpr std::size_t MOST_TOPIC_BYTES = 512;
constexpr std::size_t MOST_NAME_BYTES = 64;

bool isControl(unsigned char c)
{
    return c < ' ' || c == 0x7F;
}

bool isNodeCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.';
}

} // namespace

bool isTopicName(std::string_view topic)
{
    if (topic.empty() || topic.size() > MOST_TOPIC_BYTES || topic.front() == '$') return false;
    if (topic.find_first_of("+#") != std::string_view::npos || std::ranges::any_of(topic, isControl)) return false;
    return mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) == MOSQ_ERR_SUCCESS;
}

bool isNodeName(std::string_view name)
{
    return !name.empty() && name.size() <= MOST_NAME_BYTES && std::ranges::all_of(name, isNodeCharacter);
}

bool isDeviceName(std::string_view name)
{
    return isNodeName(name) && name != "all" && name != "group" && name != "answer";
}

std::string allTopic(const std::string& root)
{
    return root + "/all/command";
}

std::string groupTopic(const std::string& root, const std::string& group)
{
    return root + "/group/" + group + "/command";
}

std::string deviceTopic(const std::string& root, const std::string& device)
{
    return root + "/" + device + "/command";
}

std::string statusTopic(const std::string& root, const std::string& device)
{
    return root + "/" + device + "/status";
}

std::string answerBranch(const std::string& root)
{
    return root + "/answer/";
}

Topics::Topics(std::string root, std::string device, std::vector<std::string> groups)
    : root_(std::move(root)), device_(std::move(device)), groups_(std::move(groups))
{
}

std::vector<std::string> Topics::commands() const
{
    std::vector<std::string> topics{deviceTopic(root_, device_), allTopic(root_)};
    for (const std::string& group : groups_)
        topics.push_back(groupTopic(root_, group));
    return topics;
}

bool Topics::isCommand(std::string_view topic) const
{
    const std::vector<std::string> topics = commands();
    return std::ranges::find(topics, topic) != topics.end();
}

bool Topics::mayAnswer(std::string_view topic) const
{
    if (!isTopicName(topic)) return false;
    const std::string branch = answerBranch(root_);
    if (topic.starts_with(branch)) return topic.size() > branch.size();
    return topic != root_ && !topic.starts_with(root_ + "/");
}
