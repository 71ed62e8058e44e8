// The timeline page. The calls travel as compact JSON inside the page; a small inline script
// draws them as SVG when the page loads and writes what it drew into the element #status
// ("drew N lanes and M calls", or "error: ..."), which a headless browser can read back.
// A content security policy forbids every fetch, so the page never reaches the network.
#include "timeline.h"

#include <map>
#include <string_view>

#include "report.h"

namespace xajms::trace_tool {

namespace {

constexpr std::string_view kHead = R"page(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'">
<title>xajms-trace timeline</title>
<style>
body { font: 13px sans-serif; margin: 16px; color: #222; }
#chart svg { border: 1px solid #ccc; background: #fff; }
.lane-label { font: 12px monospace; }
.axis { font: 11px monospace; fill: #555; }
.bar { stroke: #333; stroke-width: 0.3; }
.bar.dim { opacity: 0.12; }
.legend span { display: inline-block; padding: 1px 6px; margin-right: 6px; color: #fff; }
#story { background: #f6f6f6; padding: 8px; min-height: 1em; }
</style></head><body>
<h1>xajms trace timeline</h1>
<p id="meta"></p>
<p class="legend"><span style="background:#2e9e5b">XA_OK</span><span style="background:#4c8bd6">XA_RDONLY</span><span style="background:#e0a020">rolled back or other</span><span style="background:#d13c3c">error</span><span style="background:#9aa5b1">no result</span></p>
<p><label>transaction <select id="xid"><option value="-1">all</option></select></label></p>
<p id="status">not drawn: the script did not run</p>
<div id="chart"></div>
<pre id="story"></pre>
<script id="data" type="application/json">)page";

constexpr std::string_view kScript = R"page(</script>
<script>
(function () {
  "use strict";
  var status = document.getElementById("status");
  window.addEventListener("error", function (e) { status.textContent = "error: " + e.message; });
  var NS = "http://www.w3.org/2000/svg";
  function el(name, attrs, parent) {
    var e = document.createElementNS(NS, name);
    for (var k in attrs) { e.setAttribute(k, attrs[k]); }
    if (parent) { parent.appendChild(e); }
    return e;
  }
  function colour(code) {
    if (code === null) { return "#9aa5b1"; }
    if (code === 0) { return "#2e9e5b"; }
    if (code === 3) { return "#4c8bd6"; }
    return code < 0 ? "#d13c3c" : "#e0a020";
  }
  function ms(us) { return us >= 10000000 ? (us / 1000000).toFixed(2) + " s" : (us / 1000).toFixed(3) + " ms"; }
  try {
    var d = JSON.parse(document.getElementById("data").textContent);
    var LABEL = 130, WIDTH = 1000, ROW = 12, MAXROWS = 12, GAP = 10;
    var span = 1, depths = d.lanes.map(function () { return 0; });
    d.calls.forEach(function (c) {
      span = Math.max(span, c[1] + c[2]);
      depths[c[0]] = Math.max(depths[c[0]], Math.min(c[3], MAXROWS - 1));
    });
    var tops = [], y = 24;
    depths.forEach(function (depth, i) { tops[i] = y; y += (depth + 1) * ROW + GAP; });
    var svg = el("svg", { width: LABEL + WIDTH + 20, height: y + 4, id: "timeline" });
    for (var t = 0; t <= 5; t++) {
      var x = LABEL + WIDTH * t / 5;
      el("line", { x1: x, x2: x, y1: 16, y2: y, stroke: "#eee" }, svg);
      el("text", { x: x, y: 12, "class": "axis", "text-anchor": t === 5 ? "end" : "middle" }, svg).textContent = ms(span * t / 5);
    }
    d.lanes.forEach(function (lane, i) {
      var g = el("g", { "class": "lane", "data-pid": lane.pid }, svg);
      el("rect", { x: 0, y: tops[i] - 2, width: LABEL + WIDTH + 20, height: (depths[i] + 1) * ROW + 4, fill: i % 2 ? "#fafafa" : "#f0f4f8" }, g);
      el("text", { x: 4, y: tops[i] + 10, "class": "lane-label" }, g).textContent = "pid " + lane.pid;
    });
    var bars = [];
    d.calls.forEach(function (c) {
      var bar = el("rect", {
        "class": "bar", x: LABEL + WIDTH * c[1] / span, y: tops[c[0]] + Math.min(c[3], MAXROWS - 1) * ROW,
        width: Math.max(2, WIDTH * c[2] / span), height: ROW - 2, fill: colour(c[4]), "data-xid": c[6]
      }, svg);
      el("title", {}, bar).textContent = d.functions[c[5]] + "\npid " + d.lanes[c[0]].pid +
        "\nstart +" + ms(c[1]) + ", took " + ms(c[2]) + "\nresult " + (c[4] === null ? "-" : c[7]) +
        (c[6] >= 0 ? "\nxid " + d.xids[c[6]] : "");
      bars.push(bar);
    });
    document.getElementById("chart").appendChild(svg);
    var select = document.getElementById("xid"), story = document.getElementById("story");
    d.xids.forEach(function (x, i) {
      var o = document.createElement("option");
      o.value = i; o.textContent = x; select.appendChild(o);
    });
    function choose() {
      var k = Number(select.value);
      bars.forEach(function (b) { b.classList.toggle("dim", k >= 0 && Number(b.getAttribute("data-xid")) !== k); });
      story.textContent = k >= 0 ? d.stories[k] : "";
    }
    select.addEventListener("change", choose);
    var wanted = decodeURIComponent(location.hash.replace(/^#xid=/, ""));
    if (d.xids.indexOf(wanted) >= 0) { select.value = d.xids.indexOf(wanted); }
    choose();
    document.getElementById("meta").textContent = d.meta;
    status.textContent = "drew " + d.lanes.length + " lanes and " + bars.length + " calls" +
      (d.dropped ? " (" + d.dropped + " calls not drawn)" : "") +
      (Number(select.value) >= 0 ? ", transaction " + d.xids[Number(select.value)] + " selected" : "");
  } catch (e) {
    status.textContent = "error: " + e.message;
  }
})();
</script>
</body></html>
)page";

std::string storyOf(const Summary &s, const std::string &xid) {
    std::string out;
    const std::vector<Call> steps = s.story(xid);
    for (const Call &step : steps) {
        out += formatTime(step.start) + "  pid " + s.lanes[step.lane].pid + "  " + step.function +
               "  " + resultName(step) + "  " + milliseconds(step.duration()) + " ms\n";
    }
    return out;
}

}  // namespace

std::string timelinePage(const Summary &s) {
    std::map<std::string, std::size_t> functions, xids;
    std::string calls = "[";
    for (const Call &call : s.timeline) {
        const std::size_t fn = functions.try_emplace(call.function, functions.size()).first->second;
        const long long xid =
            call.xid.empty()
                ? -1
                : static_cast<long long>(xids.try_emplace(call.xid, xids.size()).first->second);
        calls += (calls.size() > 1 ? "," : "") + std::string("[") + std::to_string(call.lane) +
                 "," + std::to_string(call.start - s.first) + "," +
                 std::to_string(call.duration()) + "," + std::to_string(call.depth) + "," +
                 (call.result ? std::to_string(*call.result) : "null") + "," + std::to_string(fn) +
                 "," + std::to_string(xid) + "," + jsonString(resultName(call)) + "]";
    }
    const auto names = [](const std::map<std::string, std::size_t> &index) {
        std::vector<const std::string *> byIndex(index.size());
        for (const auto &[name, i] : index) {
            byIndex[i] = &name;
        }
        return byIndex;
    };
    std::string data = "{\"lanes\":[";
    for (std::size_t i = 0; i < s.lanes.size(); ++i) {
        data += (i ? "," : "") + std::string("{\"pid\":") + jsonString(s.lanes[i].pid) + "}";
    }
    data += "],\"functions\":[";
    for (const std::string *name : names(functions)) {
        data += (data.back() == '[' ? "" : ",") + jsonString(*name);
    }
    data += "],\"xids\":[";
    std::string stories = "],\"stories\":[";
    for (const std::string *xid : names(xids)) {
        data += (data.back() == '[' ? "" : ",") + jsonString(*xid);
        stories += (stories.back() == '[' ? "" : ",") + jsonString(storyOf(s, *xid));
    }
    data +=
        stories + "],\"calls\":" + calls + "],\"dropped\":" + std::to_string(s.timelineDropped) +
        ",\"meta\":" +
        jsonString(std::to_string(s.lanes.size()) + " processes, " + std::to_string(s.calls) +
                   " calls, from " + formatTime(s.first) + " to " + formatTime(s.last) + " UTC") +
        "}";
    return std::string(kHead) + data + std::string(kScript);
}

}  // namespace xajms::trace_tool
