"use strict";
window.probe.order.push('strict.js');
var strictLoaded = true;
