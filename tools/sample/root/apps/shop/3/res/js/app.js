document.querySelector("h1").textContent += " (served from the pack)";
