// Before anything is painted: dark or light, as the person chose, or else as the system has it.
{
  const light = matchMedia("(prefers-color-scheme: light)");
  let chosen = null;
  try {
    chosen = JSON.parse(localStorage.getItem("nimbus.theme"));
  } catch {
    // A private window remembers nothing.
  }
  const show = () => {
    document.documentElement.dataset.theme = chosen ?? (light.matches ? "light" : "dark");
  };
  light.addEventListener("change", show);
  show();
}
