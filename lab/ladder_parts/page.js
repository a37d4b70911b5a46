"use strict";
// One row is chosen at a time. Pointing chooses, unless a click or a key has chosen: that stays until Escape or a click on it.
(() => {
    const rows = [...document.querySelectorAll(".row")];
    const panel = document.getElementById("panel");
    const hint = document.getElementById("hint");
    let chosen = -1;
    let kept = false;

    const bodyOf = (number) => document.getElementById("body" + number);

    function choose(number, keep) {
        if (chosen >= 0) {
            rows[chosen].classList.remove("chosen");
            rows[chosen].setAttribute("aria-selected", "false");
            rows[chosen].setAttribute("tabindex", "-1");
            bodyOf(chosen).hidden = true;
        }
        chosen = number;
        kept = keep;
        hint.hidden = true;
        panel.classList.toggle("kept", kept);
        rows[chosen].classList.add("chosen");
        rows[chosen].setAttribute("aria-selected", "true");
        rows[chosen].setAttribute("tabindex", "0");
        bodyOf(chosen).hidden = false;
        panel.scrollTop = 0;
    }

    function release() {
        kept = false;
        panel.classList.remove("kept");
    }

    function go(number) {
        const next = Math.max(0, Math.min(rows.length - 1, number));
        rows[next].focus({ preventScroll: true });
        rows[next].scrollIntoView({ block: "nearest" });
    }

    rows.forEach((row, number) => {
        row.setAttribute("tabindex", number === 0 ? "0" : "-1");
        row.setAttribute("aria-selected", "false");
        row.addEventListener("pointerenter", () => { if (!kept) choose(number, false); });
        row.addEventListener("focus", () => choose(number, true));
        // Before a click on a row comes its focus.
        let again = false;
        row.addEventListener("pointerdown", () => { again = kept && chosen === number; });
        row.addEventListener("click", () => {
            choose(number, true);
            if (again) release();
        });
    });

    document.addEventListener("keydown", (event) => {
        if (event.key === "Escape") release();
        if (!document.activeElement.classList.contains("row")) return;
        const to = {
            ArrowDown: chosen + 1, ArrowUp: chosen - 1, PageDown: chosen + 20, PageUp: chosen - 20,
            Home: 0, End: rows.length - 1,
        }[event.key];
        if (to === undefined) return;
        event.preventDefault();
        go(to);
    });
})();
