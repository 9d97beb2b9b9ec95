// The fixed parts of the HTML page.
#pragma once

namespace zel::tool {

// A format string; its argument is the title, escaped. The policy forbids the page to load anything.
inline constexpr char kHtmlHead[] = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>{}</title>
<style>
:root {{ color-scheme: light dark; --line: #8884; --soft: #8881; }}
body {{ font: 15px/1.45 system-ui, sans-serif; margin: 0; }}
header, main {{ max-width: 1100px; margin: 0 auto; padding: 0 20px; }}
header {{ padding-top: 20px; }}
h1 {{ font-size: 22px; overflow-wrap: anywhere; margin: 0; }}
h2 {{ font-size: 17px; margin: 28px 0 8px; border-bottom: 1px solid var(--line); }}
.bar {{ display: flex; height: 22px; overflow: hidden; border-radius: 3px; }}
.bar.tall {{ height: 44px; margin-bottom: 10px; }}
.piece {{ min-width: 1px; overflow: hidden; white-space: nowrap; font-size: 12px; color: #000; display: flex;
  align-items: center; justify-content: center; border-right: 1px solid #fff8; box-sizing: border-box; }}
.layers {{ display: grid; grid-template-columns: max-content 1fr max-content; gap: 3px 10px; align-items: center; }}
.label, .size {{ font-size: 13px; font-variant-numeric: tabular-nums; }}
.size {{ text-align: right; }}
.row {{ background: var(--soft); min-width: 0; }}
table {{ border-collapse: collapse; width: 100%; }}
table.narrow {{ width: auto; }}
th, td {{ text-align: left; padding: 3px 12px 3px 0; border-bottom: 1px solid var(--line); vertical-align: top;
  overflow-wrap: anywhere; }}
th.n, td.n {{ text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; padding: 3px 0 3px 12px; }}
#tensors th {{ cursor: pointer; position: sticky; top: 0; background: Canvas; }}
td i {{ display: inline-block; width: 11px; height: 11px; margin-right: 7px; border-radius: 2px; }}
.mono, pre {{ font-family: ui-monospace, monospace; font-size: 13px; }}
pre {{ background: var(--soft); padding: 10px; white-space: pre-wrap; overflow-wrap: anywhere; margin: 0; }}
.tokens span {{ display: inline-block; background: var(--soft); border-radius: 3px; margin: 2px; padding: 0 6px;
  font: 13px ui-monospace, monospace; white-space: pre; }}
.error {{ color: #c22; }}
.good {{ color: #282; }}
input {{ font: inherit; padding: 2px 6px; }}
</style></head><body>
)";

inline constexpr char kHtmlTail[] = R"(<script>
'use strict';
const table = document.getElementById('tensors'), body = table.tBodies[0];
let column = 0, up = true;
const heads = [...table.tHead.rows[0].cells];
heads.forEach((head, k) => head.addEventListener('click', () => {
  up = column === k ? !up : true;
  column = k;
  const numeric = head.classList.contains('n');
  const value = row => row.cells[k].textContent;
  const rows = [...body.rows].sort((a, b) => (numeric ? value(a) - value(b)
    : value(a) < value(b) ? -1 : value(a) > value(b) ? 1 : 0) * (up ? 1 : -1));
  body.append(...rows);
  heads.forEach(other => other.removeAttribute('aria-sort'));
  head.setAttribute('aria-sort', up ? 'ascending' : 'descending');
}));
document.getElementById('filter').addEventListener('input', event => {
  for (const row of body.rows) row.hidden = !row.cells[0].textContent.includes(event.target.value);
});
</script>
</body></html>
)";

}  // namespace zel::tool
