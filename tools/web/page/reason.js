// Why no picture is shown, in one sentence for a person who wants to know what to do.

const PATIENCE_MS = 3000; // a connection that is made anew takes less
const NAMES = { "mpeg-ts": "MPEG-TS", unknown: "of an unknown kind" };

/** What lies before the video: the way to the board, its service, the camera; empty when all of
 *  them are there. */
function before(link, state) {
  if (link.missing > PATIENCE_MS) {
    return "There is no connection to the board: see whether it is on, and you in its network.";
  }
  if (link.open && state.get("service", "linked") === false) {
    return `The service at ${state.get("service", "host")} does not answer: see whether it runs` +
      " (systemctl status nimbus), and whether ten viewers are there already.";
  }
  return "";
}

function noVideo(state) {
  if (Number(state.get("settings", "v_dis")) === 1) {
    return "The board sends no video to viewers: change that in the settings, under Video.";
  }
  if (state.get("camera", "connected") === false) {
    return "The board hears nothing of the camera: switch it on, and see whether it is connected.";
  }
  return "The camera is there, but sends no video: see whether another application has it.";
}

function unable(stream) {
  return stream?.kind === "h265"
    ? "The video is H.265, which this browser does not play: choose H.264 on the camera, or open" +
      " the page in a browser that plays H.265."
    : "This browser has nothing to play live video with: open the page in a current one.";
}

/** The sentence; empty when nothing is wrong. */
export function sentence({ reason, stream }, link, state) {
  const first = reason === null ? "" : before(link, state);
  if (first) return first;
  const none = stream?.kind === "none" && reason !== "connecting";
  const sentences = {
    connecting: () => "Connecting to the board …",
    none: () => noVideo(state),
    silence: () => (state.get("camera", "connected") === false ? noVideo(state)
      : "The video has stopped: see whether the camera is still on."),
    key: () => "Waiting for the next key picture …",
    loss: () => "Pictures were lost; waiting for the next key picture …",
    kind: () => `The video is ${NAMES[stream?.kind] ?? stream?.kind}, which browsers do not play:` +
      " let the bridge send H.264.",
    unable: () => unable(stream),
  };
  return sentences[none ? "none" : reason]?.() ?? "";
}
