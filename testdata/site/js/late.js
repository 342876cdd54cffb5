// Loaded with async: runs whenever it arrives.
window.lateLoaded = true;
