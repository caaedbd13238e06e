// the page
