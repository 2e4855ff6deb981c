// Draws how an event's cost grows, from the JSON of zelvind_bench (--benchmark_out): one SVG for each growth/... there.
// dev/bench --plot starts it; gnuplot does the drawing.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

struct Picture {
  const char* growth;
  const char* axis;
};

constexpr Picture kPictures[] = {
    {"clients", "clients that get every event"}, {"heap", "MB of small Lua tables"},
    {"timers", "timers that are not due"},       {"coroutines", "coroutines that wait"},
    {"handlers", "handlers of the event"},
};

struct Curve {
  const char* settings;
  const char* title;
  const char* colour;
};

constexpr Curve kCurves[] = {
    {"packaged", "packaged settings", "#1f6f8b"},
    {"absent", "no settings", "#d1495b"},
};

// Size of what grows -> events per second in each repetition.
using Points = std::map<double, std::vector<double>>;

Points points_of(const nlohmann::json& results, const std::string& growth, const std::string& settings) {
  Points points;
  const std::string head = "growth/" + growth + "/";
  for (const auto& result : results.at("benchmarks")) {
    const std::string name = result.at("run_name");
    const bool is_repetition = result.at("run_type") == "iteration" && result.contains("events_per_s");
    if (!is_repetition || name.compare(0, head.size(), head) != 0) continue;
    if (name.find("/" + settings + "/") == std::string::npos) continue;
    points[std::stod(name.substr(head.size()))].push_back(result.at("events_per_s"));
  }
  return points;
}

// A gnuplot data block: size, lowest, median and highest rate.
std::string data_block(const std::string& name, const Points& points) {
  std::string block = "$" + name + " << END\n";
  for (auto [size, rates] : points) {
    std::sort(rates.begin(), rates.end());
    for (const double value : {size, rates[rates.size() / 2], rates.front(), rates.back()}) {
      block += std::to_string(value) + " ";
    }
    block += "\n";
  }
  return block + "END\n";
}

// "60,000"
std::string with_commas(double whole) {
  std::string digits = std::to_string(static_cast<long>(whole));
  for (size_t at = digits.size(); at > 3;) digits.insert(at -= 3, ",");
  return digits;
}

std::string tics_of(const Points& points) {
  std::string tics;
  int at = 0;
  for (const auto& [size, rates] : points) {
    tics += (tics.empty() ? "'" : ", '") + with_commas(size) + "' " + std::to_string(at++);
  }
  return tics;
}

std::string script_of(const nlohmann::json& results, const Picture& picture, const std::string& file) {
  std::string blocks;
  std::string plots;
  Points last;
  for (const Curve& curve : kCurves) {
    const Points points = points_of(results, picture.growth, curve.settings);
    if (points.empty()) continue;
    last = points;
    blocks += data_block(curve.settings, points);
    plots += (plots.empty() ? "plot $" : ", $") + std::string(curve.settings) +
             " using 0:2:3:4 with yerrorlines lw 2 pt 7 ps 0.5 lc rgb '" + curve.colour + "' title '" + curve.title +
             "'";
  }
  if (plots.empty()) return "";
  return "set terminal svg size 560,320 fixed font 'sans-serif,13' background rgb 'white'\n"
         "set output '" +
         file +
         "'\n"
         "set xlabel '" +
         picture.axis +
         "'\nset ylabel 'events a second'\n"
         "set logscale y\nset yrange [100:3e6]\nset format y '%.0s %c'\nset border 3\nset tics nomirror out\n"
         "set grid y lc rgb '#dddddd'\nset offsets 0.3, 0.3, 0, 0\nset key bottom left reverse Left\n"
         "set xtics (" +
         tics_of(last) + ")\n" + blocks + plots + "\n";
}

bool draw(const std::string& script) {
  FILE* const gnuplot = popen("gnuplot", "w");
  if (gnuplot == nullptr) return false;
  fputs(script.c_str(), gnuplot);
  return pclose(gnuplot) == 0;
}

int fail(const std::string& what) {
  fprintf(stderr, "zelvind_plot: %s\n", what.c_str());
  return 1;
}

int draw_all(const std::string& results_file, const std::string& folder) {
  const nlohmann::json results = nlohmann::json::parse(std::ifstream(results_file), nullptr, false);
  if (!results.is_object() || !results.contains("benchmarks")) return fail("no results in " + results_file);
  for (const Picture& picture : kPictures) {
    const std::string file = folder + "/" + picture.growth + ".svg";
    const std::string script = script_of(results, picture, file);
    if (script.empty()) {
      fail(std::string("the results have no growth/") + picture.growth + ", " + file + " stays as it is");
    } else if (!draw(script)) {
      return fail("failed to draw " + file + ": is gnuplot installed?");
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return fail("expected the JSON file and the folder for the pictures"), 2;
  try {
    return draw_all(argv[1], argv[2]);
  } catch (const std::exception& error) {  // of results in another form
    return fail(error.what());
  }
}
