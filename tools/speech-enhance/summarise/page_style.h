// How the report looks and the little that it does: on telephones, in the dark, on paper.
#pragma once

namespace se_tool {

inline constexpr const char* kPageStyle = R"css(
:root { color-scheme: light dark; --ink: #1c1e21; --soft: #5d636b; --line: #d9dce0; --back: #fff;
  --card: #f6f7f8; --bar: #9a1f6b; --bar2: #a2a7ae; --bad: #b3261e; }
@media (prefers-color-scheme: dark) { :root { --ink: #e8eaed; --soft: #a4abb3; --line: #3a3f45;
  --back: #16181b; --card: #1f2226; --bar: #e07ab8; --bar2: #6d747c; --bad: #ff8a80; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 76rem; padding: 1rem 1.25rem 4rem; background: var(--back);
  color: var(--ink); font: 16px/1.45 system-ui, sans-serif; }
h1 { font-size: 1.6rem; margin: .5rem 0 0; overflow-wrap: anywhere; }
h2 { font-size: 1.2rem; margin: 2.2rem 0 .6rem; }
h3 { font-size: 1rem; margin: 0 0 .4rem; overflow-wrap: anywhere; }
p, .note { color: var(--soft); margin: .2rem 0 .6rem; }
nav a { margin-right: 1rem; }
a { color: inherit; }
.figures { display: grid; grid-template-columns: repeat(auto-fit, minmax(8.5rem, 1fr)); gap: .7rem;
  margin: 1.2rem 0; }
.figures div, .card { background: var(--card); border-radius: .5rem; padding: .7rem .9rem; }
.figures b { display: block; font-size: 1.5rem; font-weight: 600; }
.figures span { color: var(--soft); font-size: .85rem; }
.bad b { color: var(--bad); }
.cards { display: grid; grid-template-columns: repeat(auto-fill, minmax(min(100%, 21rem), 1fr));
  gap: .8rem; }
.wide { display: grid; grid-template-columns: repeat(auto-fill, minmax(min(100%, 32rem), 1fr));
  gap: .8rem; }
table { border-collapse: collapse; width: 100%; font-size: .88rem; }
td, th { text-align: left; padding: .25rem .5rem .25rem 0; border-bottom: 1px solid var(--line);
  vertical-align: top; overflow-wrap: anywhere; }
td.n, th.n { text-align: right; width: 1%; padding-left: .5rem; white-space: nowrap; font-variant-numeric: tabular-nums; }
svg { width: 100%; height: auto; display: block; }
svg text { fill: var(--soft); font: 11px system-ui, sans-serif; }
.b1 { fill: var(--bar); } .b2 { fill: var(--bar2); } .axis { stroke: var(--line); }
img { width: 100%; height: auto; border-radius: .3rem; background: #fff; }
.players { display: grid; grid-template-columns: 3.6rem 1fr; gap: .3rem .4rem; align-items: center; }
audio { width: 100%; height: 2.3rem; }
summary { cursor: pointer; color: var(--soft); font-size: .88rem; }
code { font-size: .85rem; overflow-wrap: anywhere; }
)css";

// Both players of a recording stand at one position, and one plays at a time.
inline constexpr const char* kPageScript = R"js(
for (const pair of document.querySelectorAll(".players")) {
  const players = [...pair.querySelectorAll("audio")];
  for (const player of players) player.addEventListener("play", () => {
    for (const other of document.querySelectorAll("audio")) {
      if (other === player || other.paused) continue;
      if (players.includes(other)) player.currentTime = other.currentTime;
      other.pause();
    }
  });
}
)js";

}  // namespace se_tool
