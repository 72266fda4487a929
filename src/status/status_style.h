// How the pages for people look: one style, in light and dark, from a telephone's width
// on. Nothing is loaded from elsewhere.
#pragma once

constexpr char kStatusStyle[] = R"(
:root{color-scheme:light dark;--back:#f6f7f9;--card:#fff;--text:#1c2430;--soft:#5c6773;
--line:#dfe3e8;--good:#1a7f4b;--bad:#c2321f;--warn:#9a6400;--blue:#2b64c4}
@media(prefers-color-scheme:dark){:root{--back:#12161c;--card:#1b2129;--text:#e4e9ef;
--soft:#98a4b1;--line:#2d3641;--good:#4cc38a;--bad:#ff7a66;--warn:#e0a83c;--blue:#7aa8f5}}
*{box-sizing:border-box}
body{margin:0 auto;padding:1.2rem;max-width:84rem;background:var(--back);color:var(--text);
font:15px/1.45 system-ui,-apple-system,"Segoe UI",Roboto,sans-serif}
h1{font-size:1.35rem;margin:0}h2{font-size:1.05rem;margin:1.8rem 0 .5rem}
p{margin:.3rem 0}a{color:var(--blue)}.soft{color:var(--soft)}
.good{color:var(--good)}.bad{color:var(--bad)}.warn{color:var(--warn)}
.tiles{display:grid;grid-template-columns:repeat(auto-fit,minmax(9rem,1fr));gap:.7rem;
margin:1rem 0}
.tile{background:var(--card);border:1px solid var(--line);border-radius:.6rem;
padding:.6rem .8rem}
.tile b{display:block;font-size:1.35rem;font-variant-numeric:tabular-nums}
.tile span{color:var(--soft);font-size:.85rem}
.card{background:var(--card);border:1px solid var(--line);border-radius:.6rem;
overflow-x:auto}
.card:not(:has(.stack)){max-height:32rem;overflow-y:auto}
table{border-collapse:collapse;width:100%}
th,td{padding:.45rem .7rem;text-align:left;vertical-align:top;
border-bottom:1px solid var(--line)}
tr:last-child td{border-bottom:0}
th{color:var(--soft);font-weight:600;font-size:.8rem;white-space:nowrap;
position:sticky;top:0;background:var(--card)}
.n{text-align:right;font-variant-numeric:tabular-nums;white-space:nowrap}
.when{width:1%;white-space:nowrap}
code,.log{font-family:ui-monospace,SFMono-Regular,Menlo,Consolas,monospace;font-size:.86em;
overflow-wrap:anywhere}
td small{display:block;color:var(--soft)}
.state{font-weight:600;white-space:nowrap}
.state::before{content:"";display:inline-block;width:.62em;height:.62em;border-radius:50%;
margin-right:.4em;background:currentColor}
svg{display:block;width:9rem;height:2.1rem}
.line{fill:none;stroke:var(--blue);stroke-width:2}
.err{fill:var(--bad);opacity:.7}
button,input{font:inherit;color:inherit;background:var(--back);border:1px solid var(--line);
border-radius:.4rem;padding:.2rem .6rem}
button{cursor:pointer;white-space:nowrap}input[type=text]{width:min(34rem,100%)}
form{margin:0}label{display:grid;grid-template-columns:12rem minmax(0,34rem);
gap:0 .8rem;align-items:center}
@media(max-width:46rem){body{padding:.7rem}label{display:block}.when{white-space:normal;
overflow-wrap:normal;min-width:6.6rem}th{white-space:normal}
.stack thead{display:none}.stack tr{display:block;padding:.5rem .2rem;
border-bottom:1px solid var(--line)}
.stack td{display:flex;justify-content:space-between;gap:1rem;border:0;padding:.15rem .5rem;
text-align:right}
.stack td::before{content:attr(data-l);color:var(--soft);text-align:left}
.stack tr:last-child{border:0}}
)";
