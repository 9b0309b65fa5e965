// A part that does not come, as between networks, leaves the page without life.
addEventListener("error", ({ target }) => {
  if (!target.matches?.("script,link")) return;
  const again = () => fetch("/favicon.svg", { cache: "no-store" })
    .then(() => location.reload(), () => setTimeout(again, 1000));
  document.getElementById("stale")?.replaceChildren("Part of this page is missing: loading again");
  setTimeout(again, 1000);
}, true);
