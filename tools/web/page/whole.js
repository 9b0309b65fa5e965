// A part that does not come, as between networks, leaves the page without life.
addEventListener("error", ({ target }) => {
  if (!target.matches?.("[src^='/page/'],[href^='/page/']")) return;
  const wait = () => setTimeout(() => fetch(target.src || target.href, { cache: "no-store" })
    .then(({ ok }) => (ok ? location.reload() : wait()), wait), 3000);
  document.getElementById("stale")?.replaceChildren("Part of this page is missing: loading again");
  wait();
}, true);
