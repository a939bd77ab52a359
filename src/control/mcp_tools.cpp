// The server's fixed texts: the instructions, the seven tool descriptors and the protocol
// revision it answers with.

#include <array>
#include <string>

#include "control/mcp.hpp"
#include "format/platform_text.hpp"

namespace vistrel {

namespace {

using nlohmann::ordered_json;

constexpr std::string_view kInstructions =
    "Vistrel watches this Mac: CPU, memory, GPU, disk, network, battery, temperatures, every app "
    "and its helpers,\n"
    "and Claude Code / Codex sessions with their plan limits, and keeps a history for up to a "
    "year.\n"
    "Start with `status` for the whole picture, `list_apps` to see what is using the Mac (sort by "
    "cpu, memory, energy,\n"
    "disk or network), `history` to see when something happened and which apps were busy then, "
    "and `agents` for\n"
    "Claude Code and Codex: live sessions (tokens, context, cost) and how much of the 5-hour and "
    "weekly limits is used. `quit_app` never quits by itself: it asks the person in Vistrel's "
    "window, and they decide.";

struct Property {
  std::string_view name;
  std::string_view type;  // "string" or "integer"
  std::string_view description;
};

ordered_json property(std::string_view type, std::string_view description) {
  return ordered_json{{"type", type}, {"description", description}};
}

ordered_json schema(std::initializer_list<Property> properties,
                    std::initializer_list<std::string_view> required) {
  ordered_json props = ordered_json::object();
  for (const auto& p : properties) props[std::string(p.name)] = property(p.type, p.description);
  ordered_json req = ordered_json::array();
  for (auto r : required) req.push_back(r);
  return ordered_json{{"type", "object"},
                      {"properties", std::move(props)},
                      {"required", std::move(req)},
                      {"additionalProperties", false}};
}

ordered_json tool(std::string_view name, std::string_view description, ordered_json inputSchema,
                  bool readOnly, bool forLinux) {
  return ordered_json{
      {"name", name},
      {"description", platformTextFor(description, forLinux)},
      {"inputSchema", std::move(inputSchema)},
      {"annotations",
       {{"readOnlyHint", readOnly}, {"destructiveHint", false}, {"openWorldHint", false}}}};
}

constexpr std::string_view kAppName = "App name, as list_apps shows it.";

// Revisions whose messages this server answers as written (initialize, ping, tools/list,
// tools/call did not change between them in ways a tools-only server sees).
constexpr std::string_view kFirstRevision = "2024-11-05";

// "YYYY-MM-DD": the form of every protocol revision.
bool looksLikeRevision(std::string_view v) {
  if (v.size() != 10 || v[4] != '-' || v[7] != '-') return false;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9}) {
    if (v[i] < '0' || v[i] > '9') return false;
  }
  return true;
}

}  // namespace

std::string MCP::instructions(bool forLinux) {
  return platformTextFor(kInstructions, forLinux);
}

ordered_json MCP::tools(bool forLinux) {
  ordered_json list = ordered_json::array();
  list.push_back(tool("status",
                      "The Mac right now: CPU, memory and pressure, GPU, disk and network rates, "
                      "battery, temperatures, fans, power, and the five busiest apps.",
                      schema({}, {}), true, forLinux));
  list.push_back(tool(
      "list_apps",
      "Running apps with helpers grouped under them: CPU (percent of one core), memory, energy "
      "(watts), disk and network rates, GPU share and an impact score.",
      schema({{"sort", "string", "impact (default), cpu, memory, energy, disk or network."},
              {"limit", "integer", "How many, default 15, up to 100."}},
             {}),
      true, forLinux));
  list.push_back(tool("get_app",
                      "One app in detail: totals and each of its processes with pid, CPU, memory "
                      "and energy.",
                      schema({{"name", "string", kAppName}}, {"name"}), true, forLinux));
  list.push_back(
      tool("history",
           "A metric over a time span from Vistrel's record, with the peak and the apps "
           "that used the most of it.",
           schema({{"metric", "string", "cpu, memory, gpu, disk, network, battery or heat."},
                   {"span", "string", "1h, 24h, 7d, 30d or 1y. Default 24h."}},
                  {"metric"}),
           true, forLinux));
  list.push_back(tool("agents",
                      "Claude Code and Codex: plan limits (current 5-hour session and weekly: "
                      "percent used, reset time), today's tokens, and every live or earlier-today "
                      "session with model, folder, tokens, context used, cost, prompts and tool "
                      "calls.",
                      schema({}, {}), true, forLinux));
  list.push_back(tool("alerts",
                      "Recent alerts Vistrel raised: runaway CPU, growing memory, heavy disk or "
                      "network, heat, low space.",
                      schema({{"limit", "integer", "How many, default 10."}}, {}), true, forLinux));
  list.push_back(
      tool("quit_app",
           "Ask the person to quit an app. Vistrel shows its confirmation in its window; "
           "nothing quits unless they confirm there.",
           schema({{"name", "string", kAppName}}, {"name"}), false, forLinux));
  return list;
}

std::string MCP::negotiateProtocolVersion(const ordered_json& requested) {
  // The client's revision is answered as asked whenever it is a revision at all: the messages
  // this server uses are the same in every one, so a newer client keeps its own. Something that
  // is not a revision, or one older than the first, gets the revision this server was written to.
  if (requested.is_string()) {
    const auto& v = requested.get_ref<const std::string&>();
    if (looksLikeRevision(v) && v >= kFirstRevision) return v;
  }
  return std::string(kDefaultProtocolVersion);
}

std::string MCP::claudeCommand(std::string_view binaryPath) {
  std::string command = "claude mcp add vistrel -- \"";
  command += binaryPath;
  command += '"';
  return command;
}

}  // namespace vistrel
