// Sorts and filters the rows that the page already has. Without it the page is complete, but stays in its order.
"use strict";

const body = document.querySelector("tbody");
const rows = Array.from(body.rows);
const filter = document.querySelector("input");
const count = document.querySelector("output");
const none = document.querySelector(".none");
const totals = Array.from(document.querySelectorAll(".totals button"));
const headings = Array.from(document.querySelectorAll("th"));
const collator = new Intl.Collator(undefined, { numeric: true });

// What the filter looks at: all that is shown, and the whole digest of the key.
const texts = rows.map((row) => `${row.textContent} ${row.lastElementChild.firstElementChild.title}`.toLowerCase());

// What a column is sorted by: a number where the cell has one, else its text.
function sortKeys(column) {
    return new Map(rows.map((row) => {
        const cell = row.cells[column];
        return [row, "key" in cell.dataset ? BigInt(cell.dataset.key) : cell.textContent];
    }));
}

function compare(a, b) {
    return typeof a === "bigint" ? (a < b ? -1 : a > b ? 1 : 0) : collator.compare(a, b);
}

function sortBy(heading) {
    const descending = heading.getAttribute("aria-sort") === "ascending";
    const keys = sortKeys(headings.indexOf(heading));
    const direction = descending ? -1 : 1;
    const sorted = rows.slice().sort((a, b) => direction * compare(keys.get(a), keys.get(b)));
    headings.forEach((other) => other.removeAttribute("aria-sort"));
    heading.setAttribute("aria-sort", descending ? "descending" : "ascending");
    body.append(...sorted);
}

function show() {
    const words = filter.value.toLowerCase().split(/\s+/).filter(Boolean);
    const pressed = totals.find((button) => button.getAttribute("aria-pressed") === "true");
    const state = pressed.dataset.state;
    let shown = 0;
    rows.forEach((row, index) => {
        const fits = (!state || row.className === state) && words.every((word) => texts[index].includes(word));
        row.hidden = !fits;
        shown += fits;
    });
    count.textContent = shown === rows.length ? `${shown} devices` : `${shown} of ${rows.length} devices`;
    none.hidden = shown > 0;
}

function press(button) {
    const all = totals[0];
    const next = button.getAttribute("aria-pressed") === "true" ? all : button;
    totals.forEach((other) => other.setAttribute("aria-pressed", String(other === next)));
    show();
}

function onKey(event) {
    if (event.key === "/" && event.target !== filter) {
        event.preventDefault();
        filter.focus();
    } else if (event.key === "Escape" && event.target === filter) {
        filter.value = "";
        show();
    }
}

headings.forEach((heading) => heading.firstElementChild.addEventListener("click", () => sortBy(heading)));
totals.forEach((button) => button.addEventListener("click", () => press(button)));
filter.addEventListener("input", show);
document.addEventListener("keydown", onKey);
show();
