(function(){
  var table=document.getElementById('contigs'),body=table.tBodies[0],filter=document.getElementById('filter');
  var rows=Array.prototype.slice.call(body.rows),count=document.getElementById('shown');
  filter.addEventListener('input',function(){
    var q=filter.value.toLowerCase(),n=0;
    rows.forEach(function(r){var hit=r.cells[0].textContent.toLowerCase().indexOf(q)>=0;r.hidden=!hit;if(hit)n++;});
    count.textContent=n;
  });
  Array.prototype.forEach.call(table.tHead.rows[0].cells,function(th,col){
    th.addEventListener('click',function(){
      var up=!th.classList.contains('asc');
      Array.prototype.forEach.call(table.tHead.rows[0].cells,function(h){h.classList.remove('asc','desc');});
      th.classList.add(up?'asc':'desc');
      rows.sort(function(a,b){
        var x=a.cells[col].dataset.v,y=b.cells[col].dataset.v,c;
        if(col===0)c=x<y?-1:x>y?1:0;else c=Number(x)-Number(y);
        return up?c:-c;
      });
      rows.forEach(function(r){body.appendChild(r);});
    });
  });
})();
